"""Tries a host plugin: starts it beside a daemon in a sandbox, plays the appliance, and says line by
line what it got right.

COMMAND is started several times, side by side, each time in namespaces of its own: with a network that
has the appliance only, and private /tmp and /run. In its words {appliance} is replaced by the
appliance's address as HOST:PORT, {lun} by the page-80h identifier of the LUN whose snapshots it is to
take part in, and {lun2} by that of a second one. The environment has them as VEXO_APPLIANCE, VEXO_LUN
and VEXO_LUN2. It must go on until SIGTERM, which is sent to its whole process group.
"""
import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import sys
import time

LUN, SECOND_LUN = "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", "5f0c7a52-91d4-4c1e-8a37-0b6de2f94a10"
OK, FAILED, USAGE, NOT_TRIED = 0, 1, 2, 3  # exit codes; argparse has the third
FAILURE = "FAILED"
LAST_LINES = 15  # of a plugin's, that are shown after a failure
EXAMPLE = """exit codes: 0 all is well, 1 something has failed, 2 usage, 3 could not be tried

example:
  scripts/check-plugin -- env PYTHONPATH=clients/python \\
    examples/python/host_plugin.py me {lun} {appliance}
"""


def seconds(text):
    if not 0 < (value := float(text)) < 3600:
        raise argparse.ArgumentTypeError("must be more than 0 and less than 3600")
    return value


def parse(arguments):
    parser = argparse.ArgumentParser(
        prog="scripts/check-plugin", description=__doc__, epilog=EXAMPLE, allow_abbrev=False,
        formatter_class=argparse.RawDescriptionHelpFormatter,
        usage="scripts/check-plugin [OPTION...] -- COMMAND [WORD...]")
    parser.add_argument("--lun", action="append", metavar="ID",
                        help="the LUN that COMMAND takes part for, if it is set elsewhere than by {lun}; "
                             "twice for a second one")
    parser.add_argument("-o", "--output", choices=("table", "json"), default="table", help="(table)")
    parser.add_argument("--only", metavar="CHECK,...", help="these checks, and those tried along with them")
    parser.add_argument("--at-rest", metavar="COMMAND",
                        help="shell command that exits with 0 while the host is at rest")
    parser.add_argument("--patience", type=seconds, default=60, metavar="SECONDS",
                        help="for each answer of the plugin (60, as the daemon waits)")
    parser.add_argument("--split", type=seconds, default=35, metavar="SECONDS",
                        help="of the long split (35): longer than the plugin stays at rest, if it has a "
                             "limit")
    parser.add_argument("--idle", type=seconds, default=33, metavar="SECONDS",
                        help="in which keepalive pings are looked for (33); 310 would find all")
    parser.add_argument("--logs", metavar="DIRECTORY",
                        help="leave there what the plugin printed and the daemon logged")
    options, command = (arguments, []) if "--" not in arguments else (
        arguments[:arguments.index("--")], arguments[arguments.index("--") + 1:])
    settings, words = parser.parse_known_args(options)
    if words and words[0].startswith("-"):
        parser.error(f"unknown option {words[0]}")
    if words or not command:
        parser.error("put -- before the COMMAND that starts the plugin")
    if unknown := set(re.findall(r"(?<!\$)\{(\w+)\}", " ".join(command))) - {"appliance", "lun", "lun2"}:
        parser.error(f"{{{min(unknown)}}} in COMMAND is none of {{appliance}}, {{lun}} and {{lun2}}")
    if not shutil.which(command[0]):
        parser.error(f"{command[0]}: no such program")
    if settings.logs:
        try:
            pathlib.Path(settings.logs).mkdir(parents=True, exist_ok=True)
        except OSError as error:
            parser.error(f"--logs: {error}")
    settings.command = command
    settings.two_luns = len(settings.lun or ()) > 1 or any("{lun2}" in word for word in command)
    settings.lun = [*(settings.lun or [LUN]), SECOND_LUN][:2]

    # Only now, since they need gRPC, and --help does not.
    build = os.environ.setdefault("SCSI_PLUGIN_BUILD",
                                  str(pathlib.Path(__file__).resolve().parents[2] / "build/release"))
    sys.path.insert(0, f"{build}/tests/python")
    from checks import TRIALS
    known = [name for checks in TRIALS.values() for name in checks]
    wanted = settings.only.split(",") if settings.only else known
    for name in wanted:
        if name not in known:
            parser.error(f"no check {name}; there are {', '.join(known)}")
    settings.trials = {function: checks for function, checks in TRIALS.items() if set(checks) & set(wanted)}
    return settings


def kept_paths(settings):
    """Where the kit is, and where COMMAND and its files may be: a private /tmp does not hide those."""
    from support.program import BUILD, SOURCE
    folders = [pathlib.Path.cwd(), SOURCE, BUILD]
    for word in settings.command:
        path = pathlib.Path(word.rpartition("=")[2]).absolute()
        if path.exists():
            folders.append(path if path.is_dir() or path.parent == pathlib.Path("/tmp") else path.parent)
    return folders


def try_one(function, settings, pipe):
    """In a process of its own. Writes a line of JSON for each verdict, and one, without a name, for the last
    lines that the plugin printed."""
    from appliance import Missed
    from checks import Verdicts
    from support import namespaces
    from support.daemon import Daemon
    from support.program import Program

    def say(*verdict):
        os.write(pipe, json.dumps(verdict).encode() + b"\n")

    namespaces.end_with_parent()
    verdicts = Verdicts(settings.trials[function], say)
    try:
        namespaces.enter(kept_paths(settings))
    except OSError as error:
        say(None, None, f"no namespaces to be had: {error}; be root, or let users make them "
                        "(sysctl kernel.unprivileged_userns_clone)")
        return NOT_TRIED
    logs = settings.logs and open(pathlib.Path(settings.logs) / f"{function.__name__}.log", "w",
                                  encoding="utf-8")
    try:
        function(settings, verdicts)
        verdicts.end("not tried after what has failed before")
    except Missed as missed:
        verdicts.end(str(missed), "missed")
    finally:
        printed = [each.err or each.out for each in Program.started if not isinstance(each, Daemon)]
        say(None, "printed", "\n".join("".join(printed[-1:]).splitlines()[-LAST_LINES:]))
        if logs:
            write_logs(logs)
    return OK


def write_logs(file):
    from support.log import Log
    from support.program import Program
    for program in Program.started:
        print(f"--- {' '.join(program.command)}\n{program.out}{program.err}", file=file)
    print("--- the system's log", file=file)
    for log in Log.opened:
        for when, line in log.timed():
            print(f"{time.strftime('%T', time.localtime(when))}.{int(when % 1 * 1000):03} {line.text}",
                  file=file)
    file.close()


def try_all(settings):
    """All verdicts and sentences, by name; and what the plugin printed last in a trial that has failed."""
    from support import namespaces
    begun = []
    for function in settings.trials:
        reading, writing = os.pipe()
        begun.append((function, reading, namespaces.fork(
            lambda: namespaces.keep(lambda: try_one(function, settings, writing)))))
        os.close(writing)
    results, printed = {}, {}
    for function, reading, process in begun:
        with open(reading, encoding="utf-8") as lines:
            for name, verdict, text in map(json.loads, lines):
                if verdict == "printed":
                    printed[function] = text
                elif name is None:
                    print(f"scripts/check-plugin: {text}", file=sys.stderr)
                    sys.exit(NOT_TRIED)
                else:
                    results[name] = verdict, text
        os.waitpid(process, 0)
        for name in settings.trials[function]:
            if name not in results:
                print("scripts/check-plugin: the kit has failed, see above", file=sys.stderr)
                sys.exit(NOT_TRIED)
    # "missed": the trial could not go on. The reason is mostly one that another check has found, and then
    # only that one counts as failed.
    has_failed = any(verdict == FAILURE for verdict, _ in results.values())
    results = {name: ("skipped" if has_failed else FAILURE, text) if verdict == "missed" else (verdict, text)
               for name, (verdict, text) in results.items()}
    failed = [printed[function] for function, checks in settings.trials.items()
              if any(results[name][0] == FAILURE for name in checks)]
    return results, next(filter(None, failed), "")


def main():
    settings = parse(sys.argv[1:])
    print("scripts/check-plugin: this takes about a minute, or two when much fails", file=sys.stderr)
    results, printed = try_all(settings)
    about = {name: text for checks in settings.trials.values() for name, text in checks.items()}
    verdicts = [verdict for verdict, _ in results.values()]
    passed = "ok" in verdicts and FAILURE not in verdicts
    if settings.output == "json":
        print(json.dumps({"passed": passed, "checks": [
            {"name": name, "about": about[name], "verdict": results[name][0], "text": results[name][1]}
            for name in about], "printed": printed}, indent=2))
    else:
        for name, title in about.items():
            print(f"{results[name][0]:8} {name:17} {title}: {results[name][1]}")
        print("\n" + ", ".join(f"{verdicts.count(each)} {each}" for each in ("ok", FAILURE, "skipped")))
        if printed:
            print("what the plugin printed last (all of it: --logs DIRECTORY):\n" +
                  "".join(f"    {line}\n" for line in printed.splitlines()), end="")
    return OK if passed else FAILED


if __name__ == "__main__":
    try:
        status = main()
        sys.stdout.flush()
    except KeyboardInterrupt:
        status = 128 + signal.SIGINT
    except BrokenPipeError:  # nobody wants to read on
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        status = 128 + signal.SIGPIPE
    sys.exit(status)
