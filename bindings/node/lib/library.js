'use strict';
// Finds the shared library and knows the signatures of its functions.

const koffi = require('koffi');
const path = require('node:path');
const { LibraryError } = require('./errors');

// As the header writes them; a test holds them to it.
const PROTOTYPES = [
  'wrapper_audio_ctx *wrapper_audio_init(int output_rate, int denoise, const char *device_id)',
  'wrapper_audio_ctx *wrapper_audio_arm(int output_rate, int denoise, const char *device_id)',
  'int wrapper_audio_open(wrapper_audio_ctx *ctx)',
  'int32_t wrapper_audio_read(wrapper_audio_ctx *ctx, int32_t ms, int16_t *pcm, int32_t capacity, float *rms, float *peak)',
  'void wrapper_audio_release_stream(wrapper_audio_ctx *ctx)',
  'void wrapper_audio_stop(wrapper_audio_ctx *ctx)',
  'void wrapper_audio_free(wrapper_audio_ctx *ctx)',
  // These two are placeholders that take any arguments and answer -1 always, so that nothing here calls them.
  'float wrapper_audio_input_volume_get()',
  'int wrapper_audio_input_volume_set()',
  'char *wrapper_audio_list_devices_json(void)',
  'void wrapper_audio_free_text(char *text)',
  'int wrapper_audio_capabilities(void)',
  'wrapper_audio_meter *wrapper_audio_meter_open(const char *device_id)',
  'int wrapper_audio_meter_read(wrapper_audio_meter *meter, float *peak_out, float *rms_out)',
  'void wrapper_audio_meter_close(wrapper_audio_meter *meter)',
  'wrapper_audio_resampler *wrapper_audio_resampler_init(int32_t in_rate, int32_t out_rate, int32_t extra)',
  'int32_t wrapper_audio_resample(const wrapper_audio_resampler *resampler, const float *in, int32_t in_count, float *out, int32_t max_out)',
  'void wrapper_audio_resampler_free(wrapper_audio_resampler *resampler)',
  'void wrapper_audio_hpf_init(float cutoff_hz, float q)',
  'void wrapper_audio_hpf_process(const void *handle, float *samples, int32_t count)',
  'void wrapper_audio_depop_process(const void *handle, float *samples, int32_t count, float coef)',
  'void wrapper_audio_agc_init(float target_db, float release_ms)',
  'void wrapper_audio_agc_process(const void *handle, float *samples, int32_t count)',
  'float wrapper_audio_snr(void)',
  'float wrapper_audio_clipping_ratio(void)',
  'void wrapper_audio_update_noise_profile(const void *handle, int32_t freeze)',
  'int32_t wrapper_audio_denoise_stats(const void *handle, int32_t *out)',
];

// Handles are plain addresses, so that nothing is named in koffi's table of types, which all who use koffi share. So is
// the device list: koffi would make a string of a `char *` result, and the address that has to be given back be lost.
function forKoffi(prototype) {
  return prototype.replace(/wrapper_audio_(ctx|meter|resampler) \*/, 'void *').replace(/(^|\()char \*/, '$1void *');
}

const NAMES = ['libwrapper_audio.so.1', 'libwrapper_audio.so'];

const ADVICE = `\
Install the package libwrapper-audio1, or build wrapper_audio and name the file:
  export WRAPPER_AUDIO_LIBRARY=/path/to/libwrapper_audio.so.1
It needs PortAudio and RNNoise (packages libportaudio2 and librnnoise0).`;

// A read with denoising needs 128 KiB of stack, which is what koffi gives to a call on a thread. What an audio server's
// plug-in needs when a device opens is anybody's guess.
const STACK = 1 << 20;
const LEAST_STACK = 1 << 17;

function reserveStack() {
  try {
    koffi.config({ async_stack_size: STACK });
  } catch (error) {
    // Another package of the program has used koffi already; the size is settled then.
    if (koffi.config().async_stack_size < LEAST_STACK) {
      throw new LibraryError('koffi.config() gives calls on threads less than 128 KiB of stack', { cause: error });
    }
  }
}

// koffi closes a library with the worker that loaded it. Threads of audio servers may still run in it then.
function keepLoaded(file) {
  const RTLD_NOW = 2;
  koffi.load(null).func('void *dlopen(const char *file, int mode)')(file, RTLD_NOW);
}

function candidates(file) {
  const named = file ?? process.env.WRAPPER_AUDIO_LIBRARY;
  return named ? [named] : [...NAMES.map((name) => path.join(__dirname, '..', name)), ...NAMES];
}

function openFirst(files) {
  const tried = [];
  for (const file of files) {
    try {
      return { library: koffi.load(file), file };
    } catch (error) {
      tried.push(`  ${file}: ${error.message}`);
    }
  }
  throw new LibraryError(['the library wrapper_audio was not found. Tried:', ...tried, ADVICE].join('\n'));
}

let functions = null;
let loadedFrom = '';

/** The functions by their names without `wrapper_audio_`; each has an `async` that runs it on a thread. */
function loaded(named) {
  if (functions === null) {
    reserveStack();
    const { library, file } = openFirst(candidates(named));
    const found = {};
    for (const prototype of PROTOTYPES) {
      const [, name] = /wrapper_audio_(\w+)\(/.exec(prototype);
      try {
        found[name] = library.func(forKoffi(prototype));
      } catch (error) {
        throw new LibraryError(`${file} is not wrapper_audio 1: it has no wrapper_audio_${name}`, { cause: error });
      }
    }
    keepLoaded(file);
    functions = found;
    loadedFrom = file;
  } else if (named !== undefined && named !== loadedFrom) {
    throw new LibraryError(`${loadedFrom} is loaded already, so ${named} cannot be`);
  }
  return functions;
}

function load(file) {
  loaded(file);
}

module.exports = { PROTOTYPES, load, loaded };
