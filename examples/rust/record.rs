// Records three seconds of denoised speech at 16000 Hz from the default microphone, as raw signed 16-bit samples on
// standard output; the devices and the loudest peak go to standard error. Uses the core alone. To build and run it:
//
//   rustc --edition 2021 -O record.rs $(pkg-config --libs-only-L wrapper_audio)
//   ./record >speech.raw

use std::ffi::{c_char, c_int, CStr};
use std::io::Write;
use std::process::exit;
use std::ptr::{null, null_mut};

#[repr(C)]
struct Context {
    _opaque: [u8; 0],
}

#[link(name = "wrapper_audio")]
extern "C" {
    fn wrapper_audio_list_devices_json() -> *mut c_char;
    fn wrapper_audio_free_text(text: *mut c_char);
    fn wrapper_audio_init(output_rate: c_int, denoise: c_int, device_id: *const c_char) -> *mut Context;
    fn wrapper_audio_read(
        ctx: *mut Context, ms: i32, pcm: *mut i16, capacity: i32, rms: *mut f32, peak: *mut f32,
    ) -> i32;
    fn wrapper_audio_free(ctx: *mut Context);
}

struct Microphone(*mut Context);

// A context may move to another thread, but not be used by two at once: Send, not Sync.
unsafe impl Send for Microphone {}

impl Microphone {
    fn open(rate: i32) -> Option<Microphone> {
        let ctx = unsafe { wrapper_audio_init(rate, 1, null()) };
        if ctx.is_null() { None } else { Some(Microphone(ctx)) }
    }

    /// Returns how many samples were read, and their peak.
    fn read(&mut self, ms: i32, pcm: &mut [i16]) -> Option<(usize, f32)> {
        let mut peak = 0.0;
        let n = unsafe {
            wrapper_audio_read(self.0, ms, pcm.as_mut_ptr(), pcm.len() as i32, null_mut(), &mut peak)
        };
        if n < 1 { None } else { Some((n as usize, peak)) }
    }
}

impl Drop for Microphone {
    fn drop(&mut self) {
        unsafe { wrapper_audio_free(self.0) }
    }
}

fn record() -> Result<(), &'static str> {
    unsafe {
        let list = wrapper_audio_list_devices_json();
        if !list.is_null() {
            eprintln!("devices: {}", CStr::from_ptr(list).to_string_lossy());
        }
        wrapper_audio_free_text(list);
    }
    let mut microphone = Microphone::open(16000).ok_or("no microphone")?;
    let mut pcm = [0i16; 480];
    let mut loudest = 0.0f32;
    for _ in 0..100 {
        let (n, peak) = microphone.read(30, &mut pcm).ok_or("the microphone stopped delivering")?;
        let bytes: Vec<u8> = pcm[..n].iter().flat_map(|sample| sample.to_le_bytes()).collect();
        std::io::stdout().write_all(&bytes).map_err(|_| "cannot write")?;
        loudest = loudest.max(peak);
    }
    eprintln!("peak {:.3}", loudest);
    Ok(())
}

fn main() {
    if let Err(trouble) = record() {
        eprintln!("record: {}", trouble);
        exit(1);
    }
}
