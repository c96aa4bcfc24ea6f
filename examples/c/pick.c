/*
 * Lets people choose a microphone, remembers the choice, and shows the level that it records.
 *
 *   pick FILE
 *
 * FILE remembers the id. Ids survive a restart but not every change of plugs, and an id that matches nothing would
 * silently be the default device; so the id is looked up in the list first, and asked for again when it is gone.
 *
 * cc -std=c99 pick.c $(pkg-config --cflags --libs wrapper_audio) -o pick
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wrapper_audio.h>

enum { ID_SIZE = 256, MAX_INPUTS = 64 }; /* an id of more than 255 bytes matches no device */

/* Copies the text that follows `key`, without JSON's escapes. Returns where it ends; NULL if it is not there or too
   long. The list has no white space between its tokens and only two escapes, so that this little is enough; a host
   that has a JSON library uses it. */
static const char *take_text(const char *at, const char *key, char *text)
{
    size_t length = 0;
    if (at == NULL || (at = strstr(at, key)) == NULL)
        return NULL;
    for (at += strlen(key); *at != '"'; ++at) {
        if (*at == '\\')
            ++at;
        if (*at == '\0' || length == ID_SIZE - 1)
            return NULL;
        text[length++] = *at;
    }
    text[length] = '\0';
    return at;
}

/* Fills `ids` with the devices that can capture, shows them, and returns how many there are. */
static int list_inputs(char ids[][ID_SIZE])
{
    int count = 0;
    char *list = wrapper_audio_list_devices_json();
    for (const char *at = list; at != NULL && count < MAX_INPUTS && (at = strstr(at, "{\"id\":")) != NULL; ++at) {
        char kind[ID_SIZE];
        const char *end = take_text(take_text(at, "{\"id\":\"", ids[count]), "\",\"kind\":\"", kind);
        if (end == NULL || strcmp(kind, "input") != 0)
            continue;
        printf("%3d  %s%s\n", count + 1, ids[count],
               strncmp(end, "\",\"isDefault\":true", 18) == 0 ? "  (default)" : "");
        ++count;
    }
    wrapper_audio_free_text(list);
    return count;
}

/* Returns the number of the id that FILE remembers, or else of the one that the user names; -1 for none. */
static int choose(const char *file_name, char ids[][ID_SIZE], int count)
{
    char line[ID_SIZE + 1] = "";
    FILE *file = fopen(file_name, "r");
    if (file != NULL) {
        if (fgets(line, sizeof line, file) != NULL)
            line[strcspn(line, "\n")] = '\0';
        fclose(file);
    }
    for (int i = 0; i < count; ++i)
        if (strcmp(ids[i], line) == 0)
            return i;
    if (*line != '\0')
        printf("%s is not there any more.\n", line);
    printf("Which one, 1 to %d? ", count);
    fflush(stdout);
    const int number = fgets(line, sizeof line, stdin) != NULL ? atoi(line) : 0;
    if (number < 1 || number > count)
        return -1;
    file = fopen(file_name, "w");
    if (file != NULL)
        fprintf(file, "%s\n", ids[number - 1]);
    if (file == NULL || fclose(file) != 0) /* what could not be written shows here, if not before */
        fprintf(stderr, "pick: cannot write %s; the choice holds for this time\n", file_name);
    return number - 1;
}

int main(int argc, char **argv)
{
    static char ids[MAX_INPUTS][ID_SIZE];
    if (argc != 2) {
        fputs("usage: pick FILE\n", stderr);
        return 2;
    }
    const int count = list_inputs(ids);
    const int chosen = count > 0 ? choose(argv[1], ids, count) : -1;
    if (chosen < 0) {
        fputs(count > 0 ? "pick: no such number\n" : "pick: no device can capture\n", stderr);
        return count > 0 ? 2 : 1;
    }
    wrapper_audio_ctx *mic = wrapper_audio_init(16000, 0, ids[chosen]);
    float rms = 0, peak = 0, loudest = 0;
    int16_t pcm[480];
    int n = mic != NULL ? 1 : -1; /* the library has said why */
    for (int i = 0; n > 0 && i < 100; ++i)
        if ((n = wrapper_audio_read(mic, 30, pcm, 480, &rms, &peak)) > 0 && peak > loudest)
            loudest = peak;
    wrapper_audio_free(mic);
    if (n > 0)
        printf("Three seconds of %s: peak %.3f\n", ids[chosen], (double)loudest);
    return n < 1;
}
