// Records three seconds of denoised speech at 16000 Hz from the default microphone, as raw signed 16-bit samples on
// standard output; the devices and the loudest peak go to standard error. Uses the core alone, through
// java.lang.foreign, which Java has from version 22 on. To build and run it:
//
//   javac Record.java
//   java --enable-native-access=ALL-UNNAMED Record >speech.raw

import static java.lang.foreign.ValueLayout.ADDRESS;
import static java.lang.foreign.ValueLayout.JAVA_BYTE;
import static java.lang.foreign.ValueLayout.JAVA_FLOAT;
import static java.lang.foreign.ValueLayout.JAVA_INT;
import static java.lang.foreign.ValueLayout.JAVA_SHORT;

import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.lang.foreign.Arena;
import java.lang.foreign.FunctionDescriptor;
import java.lang.foreign.Linker;
import java.lang.foreign.MemorySegment;
import java.lang.foreign.SymbolLookup;
import java.lang.invoke.MethodHandle;
import java.util.Locale;

public class Record {
    static final SymbolLookup LIBRARY = SymbolLookup.libraryLookup("libwrapper_audio.so.1", Arena.global());

    static MethodHandle function(String name, FunctionDescriptor type) {
        return Linker.nativeLinker().downcallHandle(LIBRARY.find("wrapper_audio_" + name).orElseThrow(), type);
    }

    static final MethodHandle LIST = function("list_devices_json", FunctionDescriptor.of(ADDRESS));
    static final MethodHandle FREE_TEXT = function("free_text", FunctionDescriptor.ofVoid(ADDRESS));
    static final MethodHandle INIT = function("init", FunctionDescriptor.of(ADDRESS, JAVA_INT, JAVA_INT, ADDRESS));
    static final MethodHandle READ = function("read",
        FunctionDescriptor.of(JAVA_INT, ADDRESS, JAVA_INT, ADDRESS, JAVA_INT, ADDRESS, ADDRESS));
    static final MethodHandle FREE = function("free", FunctionDescriptor.ofVoid(ADDRESS));

    static boolean record() throws Throwable {
        MemorySegment list = (MemorySegment) LIST.invokeExact();
        if (list.address() != 0)
            System.err.println("devices: " + list.reinterpret(65536).getString(0)); // no list is longer
        FREE_TEXT.invokeExact(list);

        // An id is passed as arena.allocateFrom(id).
        MemorySegment microphone = (MemorySegment) INIT.invokeExact(16000, 1, MemorySegment.NULL);
        if (microphone.address() == 0) {
            System.err.println("record: no microphone");
            return false;
        }
        // System.out would hide write errors.
        try (Arena arena = Arena.ofConfined(); var output = new FileOutputStream(FileDescriptor.out)) {
            MemorySegment pcm = arena.allocate(JAVA_SHORT, 480), peak = arena.allocate(JAVA_FLOAT);
            float loudest = 0;
            for (int i = 0; i < 100; ++i) {
                int n = (int) READ.invokeExact(microphone, 30, pcm, 480, MemorySegment.NULL, peak);
                if (n < 1) {
                    System.err.println("record: the microphone stopped delivering");
                    return false;
                }
                output.write(pcm.asSlice(0, 2L * n).toArray(JAVA_BYTE));
                loudest = Math.max(loudest, peak.get(JAVA_FLOAT, 0));
            }
            System.err.println(String.format(Locale.ROOT, "peak %.3f", loudest));
            return true;
        } finally {
            FREE.invokeExact(microphone);
        }
    }

    public static void main(String[] arguments) throws Throwable {
        System.exit(record() ? 0 : 1);
    }
}
