#!/usr/bin/env python3
"""Records the same streams in segments with kxmux and with other programs, and prints Markdown.

usage: scripts/recorder_peers.py KXMUX [--seconds N]

Of each: frames lost and times that do not meet, over all cuts; the longest time that the pipe to it
was blocked while one write of it stalls for 3 s; and what a disk that fills up leaves. The stall is
a library that is loaded in front of the C library (built here with cc), the disk a tmpfs of 48 MiB,
which needs root. ffmpeg makes the streams; a program that is not installed is left out.
"""
import argparse
import fractions
import glob
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import threading
import time

FPS = 30
DISK_MIB = 48
STALL = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdatomic.h>
#include <string.h>
#include <stdio.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>
/* The first write to an .mp4 file two seconds after the first one takes three seconds. */
static _Atomic long first; static atomic_flag done = ATOMIC_FLAG_INIT;
static void stall(int file) {
    char link[64], path[512]; ssize_t size; struct timespec now;
    snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    size = readlink(link, path, sizeof path - 1);
    if (size < 0) return;
    path[size] = 0;
    if (strstr(path, ".mp4") == NULL || strstr(path, ".info") != NULL) return;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long expected = 0;
    atomic_compare_exchange_strong(&first, &expected, now.tv_sec);
    if (now.tv_sec - first < 2 || atomic_flag_test_and_set(&done)) return;
    struct timespec three = {3, 0};
    nanosleep(&three, NULL);
}
#define REAL(name) __typeof__(&name) real = (__typeof__(&name))dlsym(RTLD_NEXT, #name)
ssize_t write(int f, const void* b, size_t n) { REAL(write); stall(f); return real(f, b, n); }
ssize_t writev(int f, const struct iovec* v, int n) { REAL(writev); stall(f); return real(f, v, n); }
ssize_t pwrite(int f, const void* b, size_t n, off_t o) { REAL(pwrite); stall(f); return real(f, b, n, o); }
ssize_t pwrite64(int f, const void* b, size_t n, off64_t o) { REAL(pwrite64); stall(f); return real(f, b, n, o); }
"""


def run(command, **options):
    return subprocess.run(command, shell=True, capture_output=True, text=True, timeout=600, **options)


def make_streams(folder, seconds):
    """Annex-B video with a key frame a second and without B-frames, and AAC, and both in MPEG-TS."""
    run(f"ffmpeg -nostdin -v error -f lavfi -i testsrc2=rate={FPS}:duration={seconds}:size=640x360 "
        f"-f lavfi -i sine=sample_rate=48000:duration={seconds} -c:v libx264 -preset ultrafast -bf 0 "
        f"-g {FPS} -b:v 6M -minrate 6M -maxrate 6M -bufsize 1M -nal-hrd cbr "
        f"-c:a aac -ac 1 -f mpegts {folder}/in.ts").check_returncode()
    run(f"ffmpeg -nostdin -v error -i {folder}/in.ts -map 0:v -c copy -f h264 {folder}/in.h264 "
        f"-map 0:a -c copy -f adts {folder}/in.aac").check_returncode()


def writers(kxmux, folder):
    """name: (command that reads a stream at standard input and writes segments into {out}, input)."""
    found = {"kxmux --segment 1s": (
        f"'{kxmux}' --video - --video-codec h264 --fps {FPS} -o {{out}}/%04i.mp4 --segment 1s",
        "in.h264")}
    found["ffmpeg, segment muxer"] = (
        f"ffmpeg -nostdin -v error -f h264 -framerate {FPS} -i - -c copy -f segment -segment_time 1 "
        "-reset_timestamps 1 {out}/%04d.mp4", "in.h264")
    found["ffmpeg, fifo muxer"] = (
        f"ffmpeg -nostdin -v error -f h264 -framerate {FPS} -i - -c copy -map 0:v -f fifo "
        "-fifo_format segment -format_opts segment_time=1:reset_timestamps=1:segment_format=mp4 "
        "-queue_size 1000 {out}/%04d.mp4", "in.h264")
    if shutil.which("gst-launch-1.0"):
        found["GStreamer, splitmuxsink"] = (
            "gst-launch-1.0 -q -e fdsrc ! tsdemux ! video/x-h264 ! h264parse ! "
            "splitmuxsink location={out}/%04d.mp4 max-size-time=1000000000", "in.ts")
    return found


def packets(path):
    """Decode times of the pictures, and where the file ends; none when it cannot be read."""
    answer = run(f"ffprobe -v error -select_streams v:0 -show_entries "
                 f"packet=dts,duration:stream=time_base,duration_ts -of json '{path}'")
    try:
        told = json.loads(answer.stdout)
        stream = told["streams"][0]
        base = fractions.Fraction(stream["time_base"])
        return [p for p in told.get("packets", [])], stream["duration_ts"] * base
    except (ValueError, KeyError, IndexError):
        return [], None


def check(folder):
    files = sorted(glob.glob(f"{folder}/*.mp4"))
    frames, seconds, bad = 0, fractions.Fraction(0), 0
    for path in files:
        found, length = packets(path)
        if length is None:
            bad += 1
            continue
        frames += len(found)
        seconds += length
    return files, frames, seconds, bad


def feed(command, data, seconds, env=None):
    """Writes the stream at its pace; the longest that a write took, and the exit status."""
    process = subprocess.Popen(command, shell=True, stdin=subprocess.PIPE, env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    longest, piece, start = 0.0, max(1, len(data) // int(seconds * 100)), time.monotonic()
    try:
        for index in range(0, len(data), piece):
            due = start + index / len(data) * seconds
            time.sleep(max(0.0, due - time.monotonic()))
            began = time.monotonic()
            process.stdin.write(data[index:index + piece])
            process.stdin.flush()
            longest = max(longest, time.monotonic() - began)
        process.stdin.close()
    except BrokenPipeError:
        pass
    try:
        status = process.wait(timeout=60)
    except subprocess.TimeoutExpired:
        process.kill()
        status = "hangs"
    return longest, status


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("kxmux")
    parser.add_argument("--seconds", type=int, default=20)
    options = parser.parse_args()
    kxmux = os.path.abspath(options.kxmux)
    with tempfile.TemporaryDirectory(dir="/dev/shm") as scratch:
        make_streams(scratch, options.seconds)
        total = options.seconds * FPS
        library = f"{scratch}/stall.so"
        pathlib.Path(scratch, "stall.c").write_text(STALL)
        run(f"cc -shared -fPIC -O1 -o {library} {scratch}/stall.c -ldl").check_returncode()
        disk = f"{scratch}/disk"
        os.mkdir(disk)
        print("| writer | files | frames lost | gap, ms | pipe blocked at a stall, ms | full disk: "
              "files, unreadable, frames of what was taken |")
        print("|---|---|---|---|---|---|")
        for name, (command, source) in writers(kxmux, scratch).items():
            out = f"{scratch}/out"
            shutil.rmtree(out, ignore_errors=True)
            os.mkdir(out)
            run(command.format(out=out) + f" <{scratch}/{source}")
            files, frames, seconds, bad = check(out)
            gap = float(abs(seconds - options.seconds)) * 1000
            shutil.rmtree(out)
            os.mkdir(out)
            data = pathlib.Path(scratch, source).read_bytes()
            stalled, _ = feed(command.format(out=out), data, options.seconds,
                              dict(os.environ, LD_PRELOAD=library))
            if run(f"mount -t tmpfs -o size={DISK_MIB}m tmpfs {disk}").returncode == 0:
                often = " ".join([f"{scratch}/{source}"] * ((DISK_MIB << 20) * 2 // len(data)))
                run(f"cat {often} | " + command.format(out=disk))
                left, kept, _, unreadable = check(disk)
                run(f"umount {disk}")
                full = f"{len(left)}, {unreadable}, {kept}"
            else:
                full = "no tmpfs"
            print(f"| {name} | {len(files)} | {total - frames} | {gap:.2f} | {stalled * 1000:.0f} | "
                  f"{full} |", flush=True)


sys.exit(main())
