"""How much longer than the split a host is frozen: plugin_ctl and plugin_agent with all options at
their defaults, on ext4 images, beside a shell script that does nothing but freeze, split and thaw.

Prints a line of JSON for each measure of each round. Needs root, and namespaces of its own.
"""

import json
import os
import pathlib
import shlex
import subprocess
import sys
import time

SPLITS = (0, 0.1, 1, 5)  # seconds
# Before each freeze. Soon after another one it would be several times faster, because the kernel need not
# wait for a grace period of its RCU again.
PAUSE = 0.5  # seconds
LUN = "1a2b3c4d-%04d-7a8b-9c0d-e1f2a3b4c5d6"


def run(*command, **how):
    return subprocess.run([str(word) for word in command], check=True, **how)


def mount_volumes(scratch, count):
    volumes = [scratch / f"volume_{count}_{i}" for i in range(count)]
    for volume in volumes:
        volume.mkdir()
        image = volume.with_suffix(".image")
        run("truncate", "--size", "16M", image)
        run("mkfs.ext4", "-q", image)
        run("mount", "-o", "loop", image, volume)
    return volumes


def wait_for(condition):
    deadline = time.monotonic() + 30
    while not condition():
        if time.monotonic() > deadline:
            sys.exit("scripts/bench: nothing happens in 30 s")
        time.sleep(0.01)


def by_shell(volumes, split):
    freeze, thaw = (" && ".join(f"fsfreeze --{what} {shlex.quote(str(volume))}" for volume in volumes)
                    for what in ("freeze", "unfreeze"))
    time.sleep(PAUSE)
    begin = time.monotonic()
    run("sh", "-c", f"{freeze} && sleep {split}; {thaw}")
    return 1e3 * (time.monotonic() - begin - split)


class Agent:
    def __init__(self, tools, scratch, volumes):
        self.tools, self.run_dir, self.log = tools, scratch / "run", scratch / f"log_{len(volumes)}"
        self.luns = [LUN % i for i in range(len(volumes))]
        self.process = subprocess.Popen(
            [tools / "plugin_agent/plugin_agent", "--appliance=127.0.0.1", f"--run-dir={self.run_dir}",
             *(f"--lun={lun}" for lun in self.luns), *(f"--fs={volume}" for volume in volumes)],
            stderr=self.log.open("w"))
        wait_for(lambda: "subscribed to" in self.log.read_text())

    def records(self):
        return [line for line in self.log.read_text().splitlines() if line.startswith("{")]

    def snapshot(self, split):
        before = len(self.records())
        (self.run_dir / "pause").unlink(missing_ok=True)  # of the rest before
        time.sleep(PAUSE)
        told = run(self.tools / "plugin_ctl/plugin_ctl", "snapshot", "-o", "json", "--split", f"sleep {split}",
                   *(f"--p80={lun}" for lun in self.luns), stdout=subprocess.PIPE, text=True).stdout
        steps = [json.loads(line) for line in told.splitlines()]
        took = next(step["seconds"] for step in steps if step.get("step") == "split")
        wait_for(lambda: len(self.records()) == before + len(self.luns))
        return max(json.loads(line)["frozen_ms"] for line in self.records()[before:]) - 1e3 * took


def main():
    build, scratch, rounds = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), int(sys.argv[3])
    run("ip", "link", "set", "lo", "up")
    os.makedirs("/tmp/iscsi", exist_ok=True)
    (scratch / "run").mkdir()
    for folder in "/tmp/iscsi", scratch / "run":  # on a tmpfs, as /run is
        run("mount", "-t", "tmpfs", "bench", folder)
    for count in (1, 8):
        volumes = mount_volumes(scratch, count)
        inventory = scratch / f"luns_{count}.json"
        inventory.write_text(json.dumps({"storage_objects": [{"wwn": LUN % i} for i in range(count)]}))
        daemon = subprocess.Popen([build / "plugin_server/scsi_plugin_server"],
                                  env={**os.environ, "VEXO_ISCSI_CONF": str(inventory)})
        agent = Agent(build / "tools", scratch, volumes)
        try:
            for split in SPLITS:
                for _ in range(rounds):
                    for server, took in (("daemon", agent.snapshot(split)),
                                         ("baseline", by_shell(volumes, split))):
                        print(json.dumps({"measure": f"frozen/{count}/{split}/beyond_ms",
                                          "server": server, "samples": [took]}), flush=True)
        finally:
            agent.process.terminate()
            agent.process.wait()
            daemon.kill()
            daemon.wait()
            for volume in volumes:
                run("umount", volume)


main()
