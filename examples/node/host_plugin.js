#!/usr/bin/env node
// A host plugin: takes part in the snapshots of one LUN.
const { setTimeout: sleep } = require('timers/promises');
const { connect } = require('./service');

const [pluginId, lun, address = '127.0.0.1:3265'] = process.argv.slice(2);
if (!lun) {
  console.error('usage: host_plugin.js PLUGIN_ID LUN [ADDRESS]    LUN is the page-80h identifier');
  process.exit(2);
}
const daemon = connect(address);

const saysYes = async (command) =>
  (await daemon.call('LunOp', { plugin_id: pluginId, ...command }, 5)).success;

// Whether the daemon gives this answer in time. Asks for the first time after a moment.
async function becomes(answer, seconds, command) {
  for (const end = Date.now() + seconds * 1000; Date.now() < end; ) {
    await sleep(200);
    if (leaving) throw new Error('told to stop');
    if ((await saysYes(command)) === answer) return true;
  }
  return false;
}

async function takePart() {
  if (!(await saysYes({ start_mirror_req: { src_lun_id: lun } }))) {
    return console.log('the announcement is withdrawn');
  }
  const isMirrorDone = { is_mirror_done_req: { type: 'LUN_TYPE_80', src_lun_id: lun } };
  if (!(await becomes(true, 3600, isMirrorDone))) return console.log('the mirror takes too long');
  const depart = { depart_relation_req: { src_lun_id: lun } };
  let over = false;
  try {
    console.log('at rest'); // bring the applications to rest before this line
    // Until the handshake is gone: the split is over then.
    over = !(await saysYes(depart)) || (await becomes(false, 30, depart));
  } finally {
    if (!over) await withdraw();
    console.log('at work'); // and let them go on here, whatever has happened
  }
}

// Takes the departure back, so that the local caller learns that the copy is not good.
async function withdraw() {
  // Twice: a question that timed out may reach the daemon after the first.
  for (let i = 0; i < 2; i++) {
    await daemon.call('LunOp', { start_mirror_req: { src_lun_id: lun } }, 0.4).catch(() => {});
    await sleep(100);
  }
}

let leaving = false;
let takingPart = Promise.resolve();
const stop = async () => {
  leaving = true;
  await takingPart;
  await daemon.call('UnSubscribe', { plugin_id: pluginId }, 5);
  process.exit(0);
};
const fail = (error) => {
  console.error(error.message);
  process.exit(1);
};
process.on('SIGINT', stop).on('SIGTERM', stop);

const commands = daemon.subscribe({ plugin_id: pluginId });
commands.on('data', (command) => {
  if (command.init_snapshot_req?.src_lun_p80 !== lun) return;
  takingPart = takePart().catch((error) => console.error(error.message));
});
commands.on('error', fail);
