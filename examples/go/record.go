// Records three seconds of denoised speech at 16000 Hz from the default microphone, as raw signed 16-bit samples on
// standard output; the devices and the loudest peak go to standard error. Uses the core alone. To build and run it:
//
//   go build record.go
//   ./record >speech.raw

package main

/*
#cgo pkg-config: wrapper_audio
#include <wrapper_audio.h>
*/
import "C"

import (
	"encoding/binary"
	"errors"
	"fmt"
	"os"
)

func record() error {
	list := C.wrapper_audio_list_devices_json()
	fmt.Fprintln(os.Stderr, "devices:", C.GoString(list))
	C.wrapper_audio_free_text(list)

	// An id is passed as C.CString(id), to be freed after the call.
	microphone := C.wrapper_audio_init(16000, 1, nil)
	if microphone == nil {
		return errors.New("no microphone")
	}
	defer C.wrapper_audio_free(microphone)

	// A goroutine that waits in a read occupies a system thread; Go starts another one for the other goroutines.
	var pcm [480]C.int16_t
	var peak, loudest C.float
	for i := 0; i < 100; i++ {
		n := C.wrapper_audio_read(microphone, 30, &pcm[0], C.int32_t(len(pcm)), nil, &peak)
		if n < 1 {
			return errors.New("the microphone stopped delivering")
		}
		if err := binary.Write(os.Stdout, binary.LittleEndian, pcm[:n]); err != nil {
			return err
		}
		if peak > loudest {
			loudest = peak
		}
	}
	fmt.Fprintf(os.Stderr, "peak %.3f\n", float32(loudest))
	return nil
}

func main() {
	if err := record(); err != nil {
		fmt.Fprintln(os.Stderr, "record:", err)
		os.Exit(1)
	}
}
