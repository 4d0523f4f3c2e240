"""Kills a process at a moment of its work, named by the system calls that it makes (x86-64).

The process is traced: the kernel stops it at each of its system calls until the tracer has looked at the call's number.
"""

import ctypes
import os
import signal
import struct
import subprocess
import sys
import time

CALLS = {75: "fdatasync", 82: "rename", 87: "unlink", 264: "renameat", 316: "renameat2", 435: "clone3"}

_SEIZE, _INTERRUPT, _SYSCALL, _GET_SYSCALL_INFO = 0x4206, 0x4207, 24, 0x420E
_WRITE_REGISTER, _DETACH = 6, 17
_INSTRUCTION_POINTER = 16 * 8
_TRACE_SYSGOOD = 1
_EVENT_STOP = 128
_ENTRY = 1
_WALL = 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)
_libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
_libc.ptrace.restype = ctypes.c_long


def _ptrace(request, pid, address=None, data=None):
    result = _libc.ptrace(request, pid, address, data)
    if result < 0:
        error = ctypes.get_errno()
        raise OSError(error, f"ptrace {request:#x}: {os.strerror(error)}")
    return result


def _entered_call(pid):
    """The name of the call at whose entry the process has stopped; None for another call and for the end of a call."""
    information = ctypes.create_string_buffer(88)
    _ptrace(_GET_SYSCALL_INFO, pid, len(information), ctypes.cast(information, ctypes.c_void_p))
    kind, number = struct.unpack_from("=B23xQ", information)
    return CALLS.get(number) if kind == _ENTRY else None


def run(pid, command, kill_before=-1, **options):
    """Runs a command while the process is traced. Returns the names of the process's CALLS meanwhile, in their order.

    The process is killed before the call with the index `kill_before`, if it comes so far; then the last name is "killed".
    The tracer is a process of its
    own: when it ends, the kernel lets the traced process go.
    """
    words = [sys.executable, "-B", __file__, pid, kill_before, *command]
    result = subprocess.run([str(word) for word in words], stdout=subprocess.PIPE, text=True, timeout=120, check=True,
                            **options)
    return result.stdout.split()


def crash(pid):
    """Makes a process continue at an unmapped address, so the kernel sends it SIGSEGV for a fault of its own.

    The first process of a namespace cannot be sent that signal.
    """
    _ptrace(_SEIZE, pid)
    _ptrace(_INTERRUPT, pid)
    os.waitpid(pid, _WALL)
    _ptrace(_WRITE_REGISTER, pid, _INSTRUCTION_POINTER, 64)
    _ptrace(_DETACH, pid)


def _trace(pid, kill_before, command):
    made = []
    _ptrace(_SEIZE, pid, None, _TRACE_SYSGOOD)
    _ptrace(_INTERRUPT, pid)
    with subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as tool:
        _follow(pid, tool, made, kill_before)
    print(*made)


def _follow(pid, tool, made, kill_before):
    """Lets the process run on from stop to stop until the tool has ended or the process has."""
    while True:
        stopped, status = os.waitpid(pid, os.WNOHANG | _WALL)
        if stopped == 0:
            if tool.poll() is not None:
                return
            time.sleep(0.0002)
            continue
        if not os.WIFSTOPPED(status):
            return
        passed_on = _signal_of(status)
        if os.WSTOPSIG(status) == signal.SIGTRAP | 0x80 and (call := _entered_call(pid)) is not None:
            if len(made) == kill_before:
                made.append("killed")
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, _WALL)
                return
            made.append(call)
        _ptrace(_SYSCALL, pid, None, passed_on)


def _signal_of(status):
    """The signal that the process is to get: not those with which it tells the tracer that it has stopped."""
    is_of_tracer = status >> 16 == _EVENT_STOP or os.WSTOPSIG(status) == signal.SIGTRAP | 0x80
    return 0 if is_of_tracer else os.WSTOPSIG(status)


if __name__ == "__main__":
    _trace(int(sys.argv[1]), int(sys.argv[2]), sys.argv[3:])
