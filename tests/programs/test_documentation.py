# The manuals, against the files, units, options and exit codes that they name.

import os
import pathlib
import re

import pytest

from support.program import run

pytestmark = pytest.mark.not_under("asan", "tsan")  # the texts are the same in every build

SOURCE = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = {path.name: path for path in pathlib.Path(os.environ["SCSI_PLUGIN_BUILD"]).glob("tools/*/plugin_*")
            if path.is_file() and not path.suffix}
DOCUMENTS = [path for pattern in ("*.md", "docs/*.md", "*/README.md") for path in SOURCE.glob(pattern)]
PAGES = list(SOURCE.glob("packaging/man/*.[18]"))
FOLDERS = "scripts|tools|tests|packaging|docs|proto|iscsi_conf|examples"


def anchors_in(document):
    titles = re.findall(r"^#+ (.*)", document.read_text(), re.M)
    return {re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles}


def test_links_lead_somewhere():
    for document in DOCUMENTS:
        for link in re.findall(r"\]\(([^)\s]+)\)", document.read_text()):
            file, _, anchor = link.partition("#")
            target = document.parent / file if file else document
            assert target.exists(), f"{document}: {link}"
            assert not anchor or anchor in anchors_in(target), f"{document}: {link}"


def options_of(program, *verbs):
    """The options in the --help of a program and of its verbs, by verb: "" is the program itself."""
    text = run(program, *verbs, "--help").out
    options = {" ".join(verbs): set(re.findall(r"(?:^ {1,9}(?:-\w,)?|\[)(--[a-z][a-z0-9-]*)", text, re.M))}
    below = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.M)
    for verb in re.findall(r"^  ([a-z-]+) ", below[1], re.M) if below else ():
        options |= options_of(program, *verbs, verb)
    return options


def test_options_exist():
    """In code of the manuals: after the name of one of our programs or scripts, or at its beginning."""
    scripts = [path for path in SOURCE.glob("scripts/*") if not path.suffix]
    known = {path.name: set().union(*options_of(path).values()) for path in [*PROGRAMS.values(), *scripts]}
    for document in DOCUMENTS:
        code = re.sub(r"\\\n *", " ", document.read_text())
        for line in re.findall(r"`([^`\n]+)`", code) + re.findall(r"^    (.*)", code, re.M):
            for command in re.split(r"[|;&#]+", line):
                name = re.match(r" *\S*?([\w-]*)(?= |$)", command)[1]
                given = set(re.findall(r"(?<!\S)--[a-z][a-z0-9-]*", command))
                options = known.get(name) if name in known else set().union(*known.values())
                assert not (name in known or line.startswith("--")) or given <= options, f"{document}: {line}"


@pytest.mark.parametrize("file", ["plugin_ctl.1", "plugin_agent.8"])
def test_the_man_page_has_every_verb(file):
    """And a line for its list of options, which packaging/man/page fills, if it has options."""
    page = (SOURCE / "packaging/man" / file).read_text()
    options = {verb: own - {"--help"} for verb, own in options_of(PROGRAMS[file.partition(".")[0]]).items()
               if verb not in ("", "lun", "publish")}
    assert set(re.findall(r"^\.Ss ([a-z -]+?)(?: Ar \w+)?$", page, re.M)) == set(options)
    assert set(re.findall(r'^\.\\" @options (.+)', page, re.M)) == {verb for verb, own in options.items() if own}


def test_files_and_units_exist():
    units = {path.name.partition(".")[0] for path in SOURCE.glob("packaging/systemd/*.service.in")}
    packages = re.findall(r"^Package: (\S+)", (SOURCE / "debian/control").read_text(), re.M)
    identities = ["scsi-plugin-snapshot"]  # of the system log
    installed = (SOURCE / "packaging/CMakeLists.txt").read_text()
    for document in DOCUMENTS + PAGES:
        text = document.read_text()
        for path in re.findall(rf"(?<![\w./-])(?:{FOLDERS})/[\w./-]*\w", text):
            is_installed = "/node_modules/" in path  # by scripts/setup, not always
            assert is_installed or (SOURCE / path).exists() or (document.parent / path).exists(), \
                f"{document}: {path}"
        for name in set(re.findall(r"scsi-plugin-[a-z]+", text)) - units - set(packages + identities):
            assert False, f"{document}: {name}"
        for file in re.findall(r"scsi-plugin-\w+\.service\.d/([\w-]+\.conf)", text):
            assert file in installed, f"{document}: {file}"


def test_exit_codes_are_those_of_the_help():
    for page in PAGES:
        if page.stem not in PROGRAMS:
            continue
        codes = re.search(r"^\.Sh EXIT STATUS\n(.*?)^\.Sh", page.read_text(), re.M | re.DOTALL)[1]
        said = re.findall(r"(?:Exit codes|With --status|With --check): (.*?\.)(?:\n|$)",
                          run(PROGRAMS[page.stem], "--help").out, re.DOTALL)
        assert set(re.findall(r"^\.It (\d)", codes, re.M)) == set(re.findall(r"\b\d(?= )", " ".join(said)))
