'use strict';
// Blocks of samples: 16-bit ones, and floats of full scale 1.0.

const { types } = require('node:util');

const FULL_SCALE = 32767;

function demandInt16(block) {
  if (!types.isInt16Array(block)) throw new TypeError('a block of 16-bit samples is an Int16Array');
}

function demandFloat32(block) {
  if (!types.isFloat32Array(block)) throw new TypeError('a block of floats is a Float32Array');
}

function toFloat32(block) {
  demandInt16(block);
  return Float32Array.from(block, (sample) => sample / FULL_SCALE);
}

/** As the library does it: times 32767 in single precision, limited, rounded toward zero; NaN becomes 0. */
function toInt16(block) {
  demandFloat32(block);
  return Int16Array.from(block, (sample) => Math.fround(Math.max(-1, Math.min(1, sample)) * FULL_SCALE));
}

const HIGHEST_RATE = 768000;

function checkRate(rate) {
  if (!Number.isInteger(rate) || rate < 1 || rate > HIGHEST_RATE) {
    throw new RangeError(`the rate is ${rate} Hz; it must be a whole number from 1 to ${HIGHEST_RATE}`);
  }
}

module.exports = { checkRate, demandFloat32, toFloat32, toInt16 };
