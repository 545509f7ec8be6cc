#!/usr/bin/env node
// A local program of the appliance: takes a snapshot of one LUN with its hosts' co-operation.
const { connect } = require('./service');

const [lun, address = 'unix:///tmp/iscsi/plugin_server.sock'] = process.argv.slice(2);
if (!lun) {
  console.error('usage: local_caller.js LUN [ADDRESS]    LUN is the page-80h identifier');
  process.exit(2);
}
const daemon = connect(address);

async function publish(command, ms = 65_000) {
  const [step] = Object.keys(command);
  // Two of the steps wait up to 60 s for a host, so the deadline lies beyond that.
  const { success } = await daemon.call('Publish', { task_id: lun, ...command }, ms);
  if (!success) throw new Error(`${step}: no`);
  console.log(`${step}: yes`);
}

async function takeSnapshot() {
  await publish({ init_snapshot_req: { src_lun_p80: lun } });
  let result = -1;
  try {
    // Mirror the LUN here.
    await publish({ mirror_done_req: {} });
    await publish({ wait_for_depart_req: {} });
    // Split the mirror here: the host's applications are at rest.
    // Then ask once more: a host that could not stay at rest has taken its departure back.
    await publish({ wait_for_depart_req: {} }, 2000);
    result = 0;
  } finally {
    // Also when a step has failed: what is left open keeps the LUN from being announced for 300 s.
    await publish({ depart_done_req: { result } });
  }
}

takeSnapshot()
  .catch((error) => {
    console.error(error.message);
    process.exitCode = 1;
  })
  .finally(() => daemon.close());
