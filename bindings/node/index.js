'use strict';
// Written so that `import { Recorder } from 'wrapper-audio'` finds the same names as `require`.
const { Capability, abandonedThreads, capability, devices, findDevice, logEcho, logLines, systemDevice } =
  require('./lib/devices');
const { load } = require('./lib/library');

module.exports = {
  ...require('./lib/errors'),
  ...require('./lib/processors'),
  ...require('./lib/recorder'),
  Capability,
  abandonedThreads,
  capability,
  devices,
  findDevice,
  load,
  logEcho,
  logLines,
  systemDevice,
};
