# Processes in namespaces of their own.

import ctypes
import fcntl
import os
import pathlib
import signal
import socket
import stat
import struct
import sys
import traceback

_CLONE_NEWNS, _CLONE_NEWUSER, _CLONE_NEWNET = 0x00020000, 0x10000000, 0x40000000
_MS_NOSUID, _MS_BIND, _MS_REC, _MS_PRIVATE = 2, 4096, 16384, 1 << 18
_PR_SET_PDEATHSIG, _PR_SET_CHILD_SUBREAPER = 1, 36
_SIOCSIFFLAGS, _IFF_UP = 0x8914, 1

_libc = ctypes.CDLL(None, use_errno=True)


def fork(what):
    """A child process that does `what` and exits with what it returns: the process id."""
    child = os.fork()
    if child == 0:
        _do_and_exit(what)
    return child


def keep(what):
    """Does `what` in a child process, and ends what that leaves behind: it becomes a child of this one.

    Returns the child's exit status. Call it in a process of its own, which ends with its parent.
    """
    _call(_libc.prctl, _PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    end_with_parent()
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the child gets it too
    signal.signal(signal.SIGHUP, signal.SIG_DFL)  # nohup has it ignored, and programs inherit that
    child = fork(what)
    signal.signal(signal.SIGTERM, lambda *_: os.kill(child, signal.SIGTERM))
    ended = status = None
    while ended != child:
        ended, status = os.waitpid(-1, 0)
    children = pathlib.Path(f"/proc/self/task/{os.getpid()}/children")
    try:
        while True:
            for left in children.read_text().split():
                os.kill(int(left), signal.SIGKILL)
            os.waitpid(-1, 0)
    except ChildProcessError:
        return os.waitstatus_to_exitcode(status)


def end_with_parent():
    """SIGTERM for this process when its parent ends."""
    _call(_libc.prctl, _PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)


def _do_and_exit(what):
    status = 1
    try:
        status = what()
    except BaseException:
        traceback.print_exc()
    finally:
        sys.stderr.flush()
        os._exit(status if status >= 0 else 128 - status)


def enter(kept):
    """Puts this process into namespaces: a network with a loopback interface only, and private /tmp,
    /run and /dev. Raises OSError.

    Only `kept` stays where it is when it lies under /tmp. As root by unshare alone, otherwise in a
    user namespace, which a process with threads cannot enter.
    """
    uid, gid = os.geteuid(), os.getegid()
    if uid == 0:
        _call(_libc.unshare, _CLONE_NEWNET | _CLONE_NEWNS)
    else:
        _call(_libc.unshare, _CLONE_NEWUSER | _CLONE_NEWNET | _CLONE_NEWNS)
        pathlib.Path("/proc/self/setgroups").write_text("deny")
        pathlib.Path("/proc/self/uid_map").write_text(f"0 {uid} 1")
        pathlib.Path("/proc/self/gid_map").write_text(f"0 {gid} 1")
    _mount("none", "/", None, _MS_REC | _MS_PRIVATE)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, _SIOCSIFFLAGS, struct.pack("16sH14x", b"lo", _IFF_UP))
    _private_tmp(kept)
    _private_dev()
    _mount("tmpfs", "/run", "tmpfs", _MS_NOSUID, "mode=755")
    os.chdir(kept[0])


def bind(source, target):
    """Puts one file in the place of another, for this process and its children."""
    _mount(source, target, None, _MS_BIND)


def _private_tmp(kept):
    held = {each: os.open(each, os.O_PATH) for each in kept if str(each).startswith("/tmp/")}
    _mount("tmpfs", "/tmp", "tmpfs", _MS_NOSUID, "mode=1777")
    for each, fd in held.items():
        if stat.S_ISDIR(os.fstat(fd).st_mode):
            each.mkdir(parents=True, exist_ok=True)
        else:
            each.touch()
        _mount(f"/proc/self/fd/{fd}", each, None, _MS_BIND | _MS_REC)
        os.close(fd)


def _private_dev():
    scratch = pathlib.Path("/tmp/dev")
    scratch.mkdir()
    _mount("tmpfs", scratch, "tmpfs", _MS_NOSUID, "mode=755")
    loops = [each.name for each in pathlib.Path("/dev").glob("loop*")]
    for name in ["null", "zero", "full", "random", "urandom", "tty", "fuse", *loops]:
        if os.path.exists(f"/dev/{name}"):
            (scratch / name).touch()
            _mount(f"/dev/{name}", scratch / name, None, _MS_BIND)
    (scratch / "shm").mkdir()
    (scratch / "fd").symlink_to("/proc/self/fd")
    _mount(scratch, "/dev", None, _MS_BIND | _MS_REC)


def _mount(source, target, kind, flags, options=None):
    words = [None if each is None else os.fsencode(each) for each in (source, target, kind)]
    _call(_libc.mount, *words, ctypes.c_ulong(flags), options and os.fsencode(options))


def _call(function, *arguments):
    if function(*arguments) != 0:
        raise OSError(ctypes.get_errno(), f"{function.__name__}: {os.strerror(ctypes.get_errno())}")
