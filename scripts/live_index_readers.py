#!/usr/bin/env python3
"""Shows recordings with a live index, torn at many places, to every reader that is installed.

usage: scripts/live_index_readers.py KXMUX [--states N] [--peers] [--only READER ...] | --every-write

Records MP4 and QuickTime with `kxmux --live`, makes from each N states in which a crash can leave
the file, and compares what the readers find with the samples of the intervals that were over. Needs
ffmpeg and ffprobe; gst-launch-1.0, mediainfo, mkvmerge, chromium and node (with mediabunny and
mp4box resolvable from the working directory) take part when they are there. --peers tells too what
the same readers make of other programs' fragmented files, cut at fractions of their length.

--every-write records a second of every kind of track under strace instead, and shows ffprobe the
file as it is between any two system calls and at three places within each write.

Fails when a reader misses a sample or finds another one.
"""
import argparse
import json
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
SECONDS, RATE = 8, 30
SOUND_AND_PICTURE = ("video", "audio")
EVERY_KIND = SOUND_AND_PICTURE + ("subtitle", "data")
CAPTIONS = "Scenarist_SCC V1.0\n\n" + "".join(
    f"00:00:00:{frame:02}\t9420 9420 9470 9470 4f6e e580 942f 942f\n\n" for frame in (0, 12))
FREE, HEADER = 24, 16


def run(command, **options):
    return subprocess.run([str(part) for part in command], capture_output=True, timeout=120,
                          **options)


def boxes(data, start, end):
    """Type, position and end of the boxes in data[start:end]; a size of 0 reaches to the end."""
    while start + 8 <= end:
        size, kind = struct.unpack_from(">I4s", data, start)
        if size == 1:
            size = struct.unpack_from(">Q", data, start + 8)[0]
        stop = end if size == 0 else start + size
        yield kind.decode("latin-1"), start, min(stop, end)
        start = stop


def runs(data, start, end):
    """Sample counts by track ID of the 'moof' there."""
    counts = {}
    for kind, at, stop in boxes(data, start + 8, end):
        if kind != "traf":
            continue
        track = None
        for inner, where, _ in boxes(data, at + 8, stop):
            if inner == "tfhd":
                track = struct.unpack_from(">I", data, where + 12)[0]
            elif inner == "trun":
                counts[track] = counts.get(track, 0) + struct.unpack_from(">I", data, where + 12)[0]
    return counts


class Recording:
    """A closed recording, from which every state before it can be made."""

    def __init__(self, path):
        self.path = path
        self.data = path.read_bytes()
        self.head = struct.unpack_from(">I", self.data, 0)[0]  # behind 'ftyp'
        self.mdats = []       # positions of the inner headers
        self.finished = []    # sample counts when each is closed
        total, at = {}, self.head + FREE
        while True:
            self.mdats.append(at)
            size = struct.unpack_from(">Q", self.data, at + 8)[0]
            if self.data[at + 3] == 0:
                break
            for kind, start, stop in boxes(self.data, at + size, len(self.data)):
                if kind == "moof":
                    for track, count in runs(self.data, start, stop).items():
                        total[track] = total.get(track, 0) + count
                elif kind == "mdat":
                    self.finished.append(dict(total))
                    at = start
                    break
        self.truth = packets(path)

    def state(self, length, closed, half=False):
        """The first bytes, with so many inner headers closed; of the next only the size if half."""
        data = bytearray(self.data[:length])
        data[self.head + 3] = FREE
        struct.pack_into(">Q", data, self.head + 16, 1)
        for i, at in enumerate(self.mdats):
            if at + HEADER > length or i < closed:
                continue
            data[at + 3] = 0
            if not (half and i == closed):
                struct.pack_into(">Q", data, at + 8, 1)
        return bytes(data), self.finished[closed - 1]

    def states(self, wanted):
        """States in and between the writes, from the end of the first interval on."""
        found, last = [], len(self.mdats) - 1
        steps = max(1, -(-wanted // last))
        for closed in range(1, last + 1):
            at = self.mdats[closed]
            end = self.mdats[closed + 1] if closed < last else len(self.data)
            for i in range(steps):
                found.append(self.state(at + HEADER + (end - at - HEADER) * i // steps, closed))
            if closed < last:
                for back in (9, 20, 700):
                    found.append(self.state(end - back, closed))
                found.append(self.state(end + HEADER, closed))
                found.append(self.state(end + HEADER, closed, half=True))
        # In and behind the movie box, before the last step; the closed file itself.
        movie = self.mdats[last] + HEADER
        for part in (8, 100, (len(self.data) - movie) // 2, len(self.data) - movie):
            found.append(self.state(movie + part, last))
        found.append((self.data, self.finished[-1]))
        count = min(wanted, len(found))
        return [found[(i + 1) * len(found) // count - 1] for i in range(count)]


def packets(path, kinds=SOUND_AND_PICTURE):
    """Sizes, times and key marks of the packets of each stream, by stream."""
    shown = run(["ffprobe", "-v", "error", "-show_entries",
                 "packet=codec_type,pts,dts,size,flags", "-of", "json", path])
    streams = {kind: [] for kind in kinds}
    for packet in json.loads(shown.stdout or "{}").get("packets", []):
        if packet.get("codec_type") in streams:
            streams[packet["codec_type"]].append(
                (int(packet["size"]), packet.get("pts"), packet.get("dts"), packet["flags"][0]))
    return streams


def sizes(streams):
    return {kind: [packet[0] for packet in found] for kind, found in streams.items()}


def mkv(path):
    out = path.with_suffix(".mkv")
    run(["mkvmerge", "-q", "-o", out, path])
    found = sizes(packets(out)) if out.exists() else {}
    out.unlink(missing_ok=True)
    return found


def mediainfo(path):
    shown = run(["mediainfo", "--Output=JSON", path])
    tracks = json.loads(shown.stdout)["media"]["track"]
    return {track["@type"].lower(): int(track.get("FrameCount", -1)) for track in tracks
            if track["@type"] in ("Video", "Audio")}


def gstreamer(path):
    """The bytes of all samples, track by track."""
    found = {}
    for kind in ("video", "audio"):
        out = path.with_suffix("." + kind)
        run(["gst-launch-1.0", "-q", "filesrc", f"location={path}", "!", "qtdemux", "name=d",
             f"d.{kind}_0", "!", "queue", "!", "filesink", f"location={out}"])
        found[kind] = out.stat().st_size if out.exists() else -1
        out.unlink(missing_ok=True)
    return found


def javascript(path):
    shown = run(["node", HERE / "live_index_readers.mjs", path])
    lines = shown.stdout.splitlines()
    return json.loads(lines[-1]) if lines else {}


def of_library(name):
    def read(path):
        found = javascript(path).get(name, {})
        return {kind: [sample[1] for sample in found.get(handler, [])]
                for kind, handler in (("video", "vide"), ("audio", "soun"))}
    return read


PAGE = """<video id=v src="%s" preload=auto muted></video><script>
const done = (text) => { document.title = text; document.body.append('RESULT ' + text); };
v.onloadedmetadata = () => { v.currentTime = v.duration / 2; };
v.onseeked = () => done(v.duration + ' ' + v.currentTime + ' ' + v.videoWidth);
v.onerror = () => done('error ' + v.error.message);
</script>"""


def chromium(path):
    page = path.with_suffix(".html")
    page.write_text(PAGE % path.name)
    shown = run(["chromium", "--headless", "--no-sandbox", "--disable-gpu",
                 "--allow-file-access-from-files", "--virtual-time-budget=4000",
                 "--timeout=8000", "--dump-dom", page.as_uri()])
    result = re.search(r"RESULT (\S+) (\S+) \d+", shown.stdout.decode(errors="replace"))
    return {"duration": round(float(result[1]), 2), "seeked": True} if result else {}


def expectation(reader, truth, counts):
    """What this reader has to find when so many samples of video and audio are there."""
    first = {kind: truth[kind][:count] for kind, count in counts.items()}
    if reader == "ffprobe":
        return first
    if reader == "mediainfo":
        return counts
    if reader == "gstreamer":
        return {kind: sum(packet[0] for packet in found) for kind, found in first.items()}
    if reader == "chromium":
        video = (max(packet[1] for packet in first["video"]) / (1000 * RATE)) + 1 / RATE
        audio = counts["audio"] * 1024 / 48000
        return {"duration": round(max(video, audio), 2), "seeked": True}
    return sizes(first)


def holds(reader, found, wanted):
    if reader != "chromium" or not found:
        return found == wanted
    return abs(found["duration"] - wanted["duration"]) < 0.1


def installed():
    readers = {"ffprobe": packets}
    for name, program, read in (("gstreamer", "gst-launch-1.0", gstreamer),
                                ("mediainfo", "mediainfo", mediainfo),
                                ("mkvmerge", "mkvmerge", mkv),
                                ("chromium", "chromium", chromium)):
        if shutil.which(program):
            readers[name] = read
    if shutil.which("node"):
        with tempfile.NamedTemporaryFile(suffix=".mp4") as empty:
            there = javascript(empty.name)
        readers.update({name: of_library(name) for name in ("mediabunny", "mp4box.js")
                        if name in there})
    return readers


def make_media(folder, seconds=SECONDS):
    run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
         f"testsrc2=size=1280x720:rate={RATE}:duration={seconds}", "-f", "lavfi", "-i",
         f"sine=440:duration={seconds}:sample_rate=48000", "-pix_fmt", "yuv420p", "-c:v", "libx264",
         "-preset", "veryfast", "-b:v", "2500k", "-bf", "2", "-g", "30", folder / "v.h264", "-map",
         "1", "-c:a", "aac", "-f", "adts", folder / "a.aac"], check=True)


def check(recording, readers, wanted, folder):
    states = recording.states(wanted)
    failures = {name: 0 for name in readers}
    for number, (data, finished) in enumerate(states):
        path = folder / f"state{number}{recording.path.suffix}"
        path.write_bytes(data)
        counts = {"video": finished.get(1, 0), "audio": finished.get(2, 0)}
        for name, read in readers.items():
            found, want = read(path), expectation(name, recording.truth, counts)
            if holds(name, found, want):
                continue
            failures[name] += 1
            if failures[name] <= 3:
                print(f"  {name}: state {number} of {len(data)} bytes: found {brief(found)}, "
                      f"wanted {brief(want)}")
        path.unlink()
    print(f"{recording.path.name}: {len(states)} states; " + ", ".join(
        f"{name} {len(states) - count}" for name, count in failures.items()))
    return sum(failures.values())


def system_calls(command, path):
    """What the command writes to the file, in order: position and bytes."""
    log = path.with_suffix(".strace")
    run(["strace", "-f", "-P", path, "-e", "trace=write,writev,pwrite64,pwritev,lseek,ftruncate",
         "-e", "abbrev=none", "-xx", "-s", str(1 << 24), "-o", log, *command], check=True)
    position = 0
    for line in log.read_text().splitlines():
        call = re.match(r"\d+ +(\w+)\(.* = (\d+)$", line)
        if not call:
            continue
        name, result = call[1], int(call[2])
        if name == "lseek":
            position = result
        elif name in ("write", "writev"):
            texts = re.findall(r'"((?:\\x[0-9a-f]{2})*)"', line)
            data = bytes.fromhex("".join(texts).replace("\\x", ""))[:result]
            yield position, data
            position += len(data)
        else:
            raise RuntimeError(f"{name} is not followed")


def file_at_every_write(calls):
    """The file within each write, at three places, and behind it; and whether that ended an
    interval, which the last byte of a header does."""
    data = bytearray()
    for position, written in calls:
        for cut in sorted({1, len(written) // 2, len(written) - 1, len(written)} - {0}):
            data[position:position + cut] = written[:cut]
            yield bytes(data), cut == len(written) and written == b"\x01"


def check_every_write(kxmux, kind, folder):
    path, state = folder / f"x.{kind}", folder / f"state.{kind}"
    (folder / "c.scc").write_text(CAPTIONS)
    calls = list(system_calls(
        [kxmux, "--video", folder / "v.h264", "--fps", str(RATE), "--audio", folder / "a.aac",
         "--captions", folder / "c.scc", "--timecode", "01:00:00:00", "--no-repair", "--live",
         "0.25", "-o", path], path))
    recording = Recording(path)
    truth = packets(path, EVERY_KIND)
    shown = run(["ffprobe", "-v", "error", "-show_entries", "stream=id,codec_type", "-of", "json",
                 path])
    kinds = {int(stream["id"], 16): stream["codec_type"]
             for stream in json.loads(shown.stdout)["streams"]}
    states, intervals, failures, wanted = 0, 0, 0, {kind: [] for kind in EVERY_KIND}
    for data, closes in file_at_every_write(calls):
        if closes:
            counts = {kinds[track]: n for track, n in recording.finished[intervals].items()}
            wanted = {each: truth[each][:counts.get(each, 0)] for each in EVERY_KIND}
            intervals += 1
        state.write_bytes(data)
        found = packets(state, EVERY_KIND)
        states += 1
        if found != wanted:
            failures += 1
            print(f"  state {states} of {len(data)} bytes: found {brief(found)}, "
                  f"wanted {brief(wanted)}")
    whole = data == path.read_bytes() and wanted == truth and all(truth.values())
    print(f"{path.name}: {states} states of {len(calls)} writes, {intervals} intervals; ffprobe "
          f"{states - failures}" + ("" if whole else "; the last one is not the whole recording"))
    return failures + (0 if whole else 1)


def attempt(read, path):
    try:
        return read(path)
    except (KeyError, ValueError, subprocess.TimeoutExpired):
        return {"nothing": 0}


def brief(found):
    return {kind: len(value) if isinstance(value, list) else value for kind, value in found.items()}


def peers(folder, readers):
    """What other programs' fragmented files look like at the same cuts."""
    copy = ["ffmpeg", "-v", "error", "-y", "-i", folder / "x.mp4", "-c", "copy"]
    gst = ["gst-launch-1.0", "-q", "filesrc", f"location={folder / 'x.mp4'}", "!", "qtdemux",
           "name=d", "mp4mux", "name=m", "fragment-duration=1000"]
    links = ["!", "filesink", "location=%s", "d.video_0", "!", "queue", "!", "h264parse", "!", "m.",
             "d.audio_0", "!", "queue", "!", "aacparse", "!", "m."]
    makers = {
        "ffmpeg fragmented": copy + ["-movflags", "frag_keyframe+empty_moov"],
        "ffmpeg hybrid": copy + ["-movflags", "+hybrid_fragmented+frag_keyframe"],
        "gst fragmented": gst + links,
        "gst first-moov-then-finalise": gst + ["fragment-mode=first-moov-then-finalise"] + links,
    }
    for name, command in makers.items():
        whole = folder / "peer.mp4"
        whole.unlink(missing_ok=True)
        command = [str(part).replace("%s", str(whole)) for part in command]
        try:
            made = run(command if command[0] != "ffmpeg" else command + [str(whole)])
        except (OSError, subprocess.TimeoutExpired):
            print(f"{name}: was not made")
            continue
        if made.returncode != 0 or not whole.exists():
            print(f"{name}: this version does not make it")
            continue
        data = whole.read_bytes()
        for percent in (40, 73, 100):
            cut = folder / "cut.mp4"
            cut.write_bytes(data[:len(data) * percent // 100])
            print(f"{name} at {percent} %: " + "; ".join(
                f"{reader} {brief(attempt(read, cut))}" for reader, read in readers.items()))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("kxmux")
    parser.add_argument("--states", type=int, default=60)
    parser.add_argument("--only", nargs="*")
    parser.add_argument("--peers", action="store_true")
    parser.add_argument("--every-write", action="store_true")
    options = parser.parse_args()
    if options.every_write:
        with tempfile.TemporaryDirectory() as name:
            make_media(pathlib.Path(name), 1)
            failed = [check_every_write(options.kxmux, kind, pathlib.Path(name))
                      for kind in ("mp4", "mov")]
        return 1 if any(failed) else 0
    readers = {name: read for name, read in installed().items()
               if not options.only or name in options.only}
    print("readers: " + ", ".join(readers))
    failures = 0
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        make_media(folder)
        for kind in ("mp4", "mov"):
            path = folder / f"x.{kind}"
            run([options.kxmux, "--video", folder / "v.h264", "--fps", str(RATE), "--audio",
                 folder / "a.aac", "--meta", "title=Take", "--meta", "com.example.take=7",
                 "--live", "1", "-o", path], check=True)
            failures += check(Recording(path), readers, options.states, folder)
        if options.peers:
            peers(folder, readers)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
