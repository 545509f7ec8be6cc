#!/usr/bin/env node
// A host plugin: takes part in the snapshots of one LUN.
const { setTimeout: sleep } = require('timers/promises');
const { connect, ipv4Target } = require('./service');

const [pluginId, lun, appliance = '127.0.0.1:3265'] = process.argv.slice(2);
if (!lun) {
  console.error('usage: host_plugin.js PLUGIN_ID LUN [APPLIANCE]    LUN is the page-80h identifier');
  process.exit(2);
}
const freeze = async () => console.log('at rest'); // bring the applications to rest before this line
const thaw = async () => console.log('at work'); // and let them go on here, whatever has happened
const longestRest = 30_000; // of which this must be left for the split when the host departs:
const hold = 20_000;

const self = { plugin_id: pluginId };
let daemon; // the connection, renewed with each subscription
let stream;
let current; // the handshake under way: why to give it up, and its end
let leaving = false;

// What the daemon answers: true, false, or undefined when it does not.
const call = (method, request, ms) =>
  daemon.call(method, request, ms).then((answer) => answer, () => undefined);
const ask = async (request, ms = 5000) =>
  (await call('LunOp', { ...self, [request]: { src_lun_id: lun, type: 'LUN_TYPE_80' } }, ms))?.success;
// Changes nothing. When there is a handshake the daemon would wait for its departure.
const isGone = async () =>
  (await call('Publish', { task_id: lun, wait_for_depart_req: {} }, 1000))?.success === false;
const pause = (since, first, most = 1000) =>
  sleep(Math.min(Math.max((Date.now() - since) / 10, first), 1000, most));

async function takePart(handshake) {
  const goOn = async (wait) => {
    await wait;
    if (handshake.giveUp) throw new Error(handshake.giveUp);
  };
  const announced = Date.now();
  for (let yes; !(yes = await ask('start_mirror_req')); await goOn(sleep(1000))) {
    if (yes === false || Date.now() > announced + 60_000) throw new Error('nobody waits any more');
  }
  const started = Date.now();
  let look = started + 10_000;
  for (let done; !done; done = await ask('is_mirror_done_req')) {
    await goOn(pause(started, 50)); // not at once, see docs/writing-a-plugin.md
    if (done === false && Date.now() > look) { // no is the answer also when the handshake is over
      if (await isGone()) throw new Error('the appliance has given up');
      look = Date.now() + 30_000;
    }
  }
  await rest(handshake);
}

async function rest(handshake) {
  const began = Date.now();
  const lastResort = setTimeout(thaw, longestRest);
  let departed = false;
  try {
    await freeze();
    if (Date.now() - began > longestRest - hold) throw new Error('the freeze took too long');
    departed = true;
    while (departed && !handshake.superseded) {
      const left = () => longestRest - 1000 - (Date.now() - began);
      if (left() <= 0) throw new Error('the split took too long');
      departed = (await ask('depart_relation_req', Math.min(5000, left()))) !== false;
      if (departed) await pause(began, 10, Math.max(left(), 0));
    }
    departed = false;
  } finally {
    // Twice: a question that timed out may reach the daemon after the first.
    for (let i = 0; departed && i < 2; i++, await sleep(100)) await ask('start_mirror_req', 400);
    await thaw();
    clearTimeout(lastResort);
  }
}

function announced(command) {
  if (command.init_snapshot_req?.src_lun_p80 !== lun || leaving) return;
  const before = current;
  if (before) Object.assign(before, { giveUp: 'announced again', superseded: true });
  current = {};
  current.end = (async (handshake) => {
    await before?.end;
    await takePart(handshake).catch((error) => console.error(error.message));
  })(current);
}

async function stayConnected() {
  while (!leaving) {
    try {
      daemon?.close();
      daemon = connect(await ipv4Target(appliance));
      stream = daemon.subscribe(self).on('data', announced);
      const ended = new Promise((resolve) => stream.on('error', resolve).on('end', resolve));
      // The daemon says nothing to confirm, and may have lost the subscription.
      await Promise.race([ended, sleep(1000)]);
      const list = (await call('PluginConnList', {}, 5000))?.list;
      if (list && !list.some((plugin) => plugin.plugin_id === pluginId)) await unsubscribe();
      await ended;
    } catch (error) {
      console.error(error.message); // the name is not known
    }
    if (!leaving) await sleep(500 + 3500 * Math.random()); // not all hosts at once
  }
}

// A subscriber that vanishes without this hangs the daemon at the next announcement. The second time is
// for the case that the first came before the daemon had begun to wait on the stream.
async function unsubscribe() {
  await call('UnSubscribe', self, 5000);
  stream?.cancel();
  await call('UnSubscribe', self, 5000);
}

async function leave(status) {
  if (leaving) return;
  leaving = true;
  if (current) current.giveUp = 'told to stop'; // a host at rest stays so until the split is over
  await current?.end;
  if (daemon) await unsubscribe();
  process.exit(status);
}
for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.on(signal, () => leave(0));
process.on('uncaughtException', (error) => {
  console.error(error);
  leave(1);
});
stayConnected();
