/*
 * Lets the user choose a microphone, remembers the choice, and shows the level that it records.
 *
 *   pick FILE
 *
 * FILE stores the id. Ids survive a restart but not every change of plugs: the id is looked up in the list first, and
 * if it is gone, the user is asked again.
 *
 * cc -std=c99 pick.c $(pkg-config --cflags --libs wrapper_audio_recorder) -o pick
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wrapper_audio_recorder.h>

enum { SECONDS = 3, RATE = 16000, MAX_INPUTS = 64 };

/* Fills `inputs` with the devices that can record, shows them, and returns how many there are. An id may contain any
   bytes, so the names are shown, which are safe for a terminal. */
static int list_inputs(const wrapper_audio_device_list *list, const wrapper_audio_device *inputs[])
{
    int count = 0;
    for (size_t i = 0; i < wrapper_audio_device_list_count(list) && count < MAX_INPUTS; ++i) {
        const wrapper_audio_device *device = wrapper_audio_device_list_get(list, i);
        if (device->input_channels < 1)
            continue;
        inputs[count++] = device;
        printf("%3d  %s: %s%s\n", count, device->host_api, device->name, device->is_default ? "  (default)" : "");
    }
    return count;
}

/* Returns the device whose id FILE stores, or else the one that the user chooses; NULL for none. */
static const wrapper_audio_device *choose(const char *file_name, const wrapper_audio_device *inputs[], int count)
{
    char id[1000] = "", answer[20];
    FILE *file = fopen(file_name, "rb");
    if (file != NULL) {
        id[fread(id, 1, sizeof id - 1, file)] = '\0';
        fclose(file);
    }
    for (int i = 0; i < count; ++i)
        if (strcmp(inputs[i]->id, id) == 0)
            return inputs[i];
    if (*id != '\0')
        puts("The device that you chose is no longer available.");
    printf("Which one, 1 to %d? ", count);
    fflush(stdout);
    const int number = fgets(answer, sizeof answer, stdin) != NULL ? atoi(answer) : 0;
    if (number < 1 || number > count)
        return NULL;
    const wrapper_audio_device *chosen = inputs[number - 1];
    file = fopen(file_name, "wb");
    if (file != NULL)
        fputs(chosen->id, file);
    if (file == NULL || fclose(file) != 0) /* write errors show up here at the latest */
        fprintf(stderr, "pick: cannot write %s; the choice applies to this run only\n", file_name);
    return chosen;
}

/* Returns the loudest level in three seconds; below 0 on failure. */
static float listen(const wrapper_audio_device *device)
{
    float loudest = 0;
    wrapper_audio_recorder *recorder;
    wrapper_audio_status status = wrapper_audio_recorder_create(&recorder, NULL);
    if (status == WRAPPER_AUDIO_OK)
        status = wrapper_audio_recorder_open(recorder, device->id);
    for (int i = 0; status == WRAPPER_AUDIO_OK && i < 10 * SECONDS; ++i) {
        int16_t pcm[RATE / 10];
        wrapper_audio_block block;
        status = wrapper_audio_recorder_read_s16(recorder, pcm, RATE / 10, -1, &block);
        if (block.captured_peak > loudest)
            loudest = block.captured_peak;
    }
    if (status != WRAPPER_AUDIO_OK) {
        char reason[2000] = "";
        wrapper_audio_recorder_get_text(recorder, WRAPPER_AUDIO_TEXT_REASON, reason, sizeof reason);
        fprintf(stderr, "pick: %s: %s\n", wrapper_audio_status_text(status), reason);
        loudest = -1;
    }
    wrapper_audio_recorder_free(recorder);
    return loudest;
}

int main(int argc, char **argv)
{
    const wrapper_audio_device *inputs[MAX_INPUTS], *chosen = NULL;
    wrapper_audio_device_list *list;
    if (argc != 2) {
        fputs("usage: pick FILE\n", stderr);
        return 2;
    }
    const wrapper_audio_status status = wrapper_audio_device_list_create(&list);
    const int count = list_inputs(list, inputs);
    if (count == 0)
        fprintf(stderr, "pick: %s\n", status < 0 ? wrapper_audio_status_text(status) : "no device can record");
    else if ((chosen = choose(argv[1], inputs, count)) == NULL)
        fputs("pick: no such number\n", stderr);
    const float loudest = chosen != NULL ? listen(chosen) : -1;
    if (loudest >= 0)
        printf("Three seconds of %s: peak %.3f\n", chosen->name, (double)loudest);
    wrapper_audio_device_list_free(list);
    return count > 0 && chosen == NULL ? 2 : loudest < 0;
}
