"""A root file system of its own for an agent: private namespaces over an overlay of the machine's root.

Nothing outside changes, and everything is gone when the process ends. Requires root.
"""

import ctypes
import os
import pathlib
import subprocess
import sys

_CLONE_NEWNET = 0x40000000
_MS_BIND, _MS_REC, _MS_PRIVATE = 4096, 16384, 1 << 18
_MNT_DETACH = 2
_PIVOT_ROOT = 155

_libc = ctypes.CDLL(None, use_errno=True)

FRESH = ["/run", "/tmp", "/var/tmp", "/var/opt", "/var/lib/ssh_cfg_agent", "/etc/systemd/system", "/etc/pam.d",
         "/etc/ssh_cfg_agent", "/pkg", "/commands", "/dev/shmem"]
COMMANDS = ["/usr/bin/systemctl", "/usr/sbin/ip", "/usr/sbin/nft"]


def _check(result, what):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")


def _mount(source, target, kind=None, flags=0, options=None):
    words = [word.encode() if word is not None else None for word in (str(source), str(target), kind, options)]
    _check(_libc.mount(words[0], words[1], words[2], flags, words[3]), f"mount {source} on {target}")


def unmount(path):
    _check(_libc.umount2(str(path).encode(), _MNT_DETACH), f"unmount {path}")


def run_inside(script, arguments):
    """Runs a Python script as the second process of new namespaces. Returns its Popen object."""
    words = ["unshare", "--mount", "--net", "--pid", "--ipc", "--uts", "--fork", "--kill-child", "--propagation", "private",
             sys.executable, "-B", str(script), *map(str, arguments)]
    return subprocess.Popen(words, stdout=subprocess.PIPE, text=True)


def build(agent, commands, kept):
    """Makes the new root and changes to it. The folder `kept` stays as it is on the machine, and is writable."""
    kept_folder = os.open(kept, os.O_PATH | os.O_DIRECTORY)
    os.umask(0o022)
    _mount("sandbox", "/mnt", "tmpfs")
    root = pathlib.Path("/mnt/root")
    for folder in ("root", "upper", "work"):
        (root.parent / folder).mkdir()
    _mount("sandbox", root, "overlay", 0, "lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work")
    _mount("proc", root / "proc", "proc")
    _mount("/sys", root / "sys", None, _MS_BIND | _MS_REC)
    library = pathlib.Path(agent).with_name("libssh_cfg_platform.so")
    programs = {path: pathlib.Path(path).read_bytes() for path in (agent, commands, library)}
    _mount("sandbox", root / "dev", "tmpfs")
    for name in ("null", "zero", "full", "random", "urandom"):
        (root / "dev" / name).touch()
        _mount(f"/dev/{name}", root / "dev" / name, None, _MS_BIND)
    for folder in FRESH:
        (root / folder[1:]).mkdir(parents=True, exist_ok=True)
        _mount("sandbox", root / folder[1:], "tmpfs")
    target = root / str(kept)[1:]
    target.mkdir(parents=True, exist_ok=True)
    _mount(f"/proc/self/fd/{kept_folder}", target, None, _MS_BIND | _MS_REC)
    _install(root, *programs.values())
    os.chdir(root)
    _check(_libc.syscall(_PIVOT_ROOT, b".", b"."), "pivot_root")
    unmount(".")
    os.chdir("/")
    subprocess.run(["/commands/real_ip", "link", "set", "lo", "up"], check=True)
    # Nobody reads the agent's messages while it works; they have to wait, and it drops those that cannot.
    pathlib.Path("/proc/sys/net/unix/max_dgram_qlen").write_text("100000", encoding="ascii")


def _install(root, agent, commands, library):
    """Puts the agent and the commands that it runs in their places."""
    (root / "commands/real_ip").write_bytes((root / "usr/sbin/ip").read_bytes())
    (root / "commands/lib").mkdir()
    contents = {"commands/program": commands, "commands/agent": agent, "commands/lib/libssh_cfg_platform.so": library}
    for path, content in contents.items():
        (root / path).write_bytes(content)
    for path in ("commands/program", "commands/agent", "commands/real_ip"):
        (root / path).chmod(0o755)
    for command in COMMANDS:
        (root / command[1:]).unlink(missing_ok=True)
        (root / command[1:]).symlink_to("/commands/program")


def add_namespace(name):
    """Attaches a new network namespace under a name, as `ip netns add` does."""
    own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    path = pathlib.Path("/run/netns") / name
    try:
        _check(_libc.unshare(_CLONE_NEWNET), "unshare")
        path.touch()
        _mount("/proc/thread-self/ns/net", path, None, _MS_BIND)
    finally:
        _check(_libc.setns(own, _CLONE_NEWNET), "setns")
        os.close(own)


def attach_own_namespace(name):
    path = pathlib.Path("/run/netns") / name
    path.touch()
    _mount("/proc/thread-self/ns/net", path, None, _MS_BIND)


def delete_namespace(name):
    path = pathlib.Path("/run/netns") / name
    unmount(path)
    path.unlink()
