'use strict';
// The names stand one by one so that `import { Recorder } from 'wrapper-audio'` finds them as `require` does.
const { Capability, Meter, Recorder, capability, devices } = require('./lib/capture');
const { AudioError, ClosedError, LibraryError, OpenError, ReadError, ReplacedError } = require('./lib/errors');
const { load } = require('./lib/library');
const { toFloat32, toInt16 } = require('./lib/blocks');
const {
  GainControl,
  HighPass,
  Resampler,
  clippingRatio,
  denoiseStatistics,
  depop,
  freezeNoiseProfile,
  snr,
} = require('./lib/signal');

module.exports = {
  AudioError,
  Capability,
  ClosedError,
  GainControl,
  HighPass,
  LibraryError,
  Meter,
  OpenError,
  ReadError,
  Recorder,
  ReplacedError,
  Resampler,
  capability,
  clippingRatio,
  denoiseStatistics,
  depop,
  devices,
  freezeNoiseProfile,
  load,
  snr,
  toFloat32,
  toInt16,
};
