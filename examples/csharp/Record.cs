// Records three seconds of denoised speech at 16000 Hz from the default microphone, as raw signed 16-bit samples on
// standard output; the devices and the loudest peak go to standard error. Uses the core alone. To build and run it:
//
//   mcs Record.cs
//   mono Record.exe >speech.raw

using System;
using System.Globalization;
using System.Runtime.InteropServices;

// Without a finalizer: it would close the stream on a thread of its own, while another may be opening one.
sealed class Microphone : IDisposable
{
    const string Library = "libwrapper_audio.so.1";

    // Strings are passed as UTF-8, which is what .NET and Mono call ANSI on Linux.
    [DllImport(Library)] static extern IntPtr wrapper_audio_list_devices_json();
    [DllImport(Library)] static extern void wrapper_audio_free_text(IntPtr text);
    [DllImport(Library)] static extern IntPtr wrapper_audio_init(int outputRate, int denoise, string deviceId);
    [DllImport(Library)] static extern int wrapper_audio_read(
        IntPtr ctx, int ms, [Out] short[] pcm, int capacity, IntPtr rms, out float peak);
    [DllImport(Library)] static extern void wrapper_audio_free(IntPtr ctx);

    IntPtr ctx;

    public Microphone(int rate, string deviceId = null)
    {
        ctx = wrapper_audio_init(rate, 1, deviceId);
        if (ctx == IntPtr.Zero) throw new InvalidOperationException("no microphone");
    }

    public int Read(int ms, short[] pcm, out float peak)
    {
        int n = wrapper_audio_read(ctx, ms, pcm, pcm.Length, IntPtr.Zero, out peak);
        if (n < 1) throw new InvalidOperationException("the microphone stopped delivering");
        return n;
    }

    public void Dispose()
    {
        wrapper_audio_free(ctx);
        ctx = IntPtr.Zero;
    }

    public static string Devices()
    {
        IntPtr list = wrapper_audio_list_devices_json();
        string text = Marshal.PtrToStringAnsi(list);
        wrapper_audio_free_text(list);
        return text;
    }
}

static class Program
{
    static int Main()
    {
        try
        {
            Console.Error.WriteLine("devices: " + Microphone.Devices());
            using (var microphone = new Microphone(16000))
            using (var output = Console.OpenStandardOutput())
            {
                var pcm = new short[480];
                var bytes = new byte[2 * pcm.Length];
                float peak, loudest = 0;
                for (int i = 0; i < 100; ++i)
                {
                    int n = microphone.Read(30, pcm, out peak);
                    Buffer.BlockCopy(pcm, 0, bytes, 0, 2 * n);
                    output.Write(bytes, 0, 2 * n);
                    loudest = Math.Max(loudest, peak);
                }
                Console.Error.WriteLine(string.Format(CultureInfo.InvariantCulture, "peak {0:F3}", loudest));
            }
            return 0;
        }
        catch (Exception trouble)
        {
            Console.Error.WriteLine("record: " + trouble.Message);
            return 1;
        }
    }
}
