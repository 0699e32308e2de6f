#!/usr/bin/env python3
"""A recording from Python through ctypes, with nothing but the standard library: H.264 with B-frames
and AAC sound into one file, which is repaired at the next start when this one ends before it is
finished.

  record.py OUTPUT            repairs OUTPUT if an earlier run left it unfinished, else records
  record.py OUTPUT PICTURES   ends in the middle, after so many pictures, as a crash does

The environment variable KX_MP4_LIBRARY names the library where the system does not find it.
"""
import ctypes
import os
import sys
from ctypes import (POINTER, Structure, byref, c_char, c_char_p, c_int, c_int32, c_size_t, c_uint16,
                    c_uint32, c_uint64, c_void_p, sizeof)

PICTURES, TIMESCALE, PICTURE_TICKS = 50, 90000, 3600

# One group of pictures in Annex-B form, 64 x 64, grey: I P B P B, with their places when shown.
GROUP = [
    ("00000001674d400af6213403c58b4e0000000168ce3c80"
     "000000016588840a26a4e4e4e4e4e4e4e4e4e4e4e4e4e4e4f0", 0),
    ("00000001419a282823", 2),
    ("00000001019e45141180", 1),
    ("00000001419a502823", 4),
    ("00000001019e6d141180", 3),
]
GROUP = [(bytes.fromhex(picture), place) for picture, place in GROUP]
SILENCE = bytes([0, 0, 0, 7])  # 1024 samples of AAC LC, mono


# The beginnings of the library's records, as far as this program sets them. The library is told
# their size and fills in nothing behind it.
class VideoTrack(Structure):
    _fields_ = [("struct_size", c_size_t), ("frame_duration", c_uint64), ("timescale", c_uint32),
                ("codec", c_int32), ("width", c_uint16), ("height", c_uint16)]


class AudioTrack(Structure):
    _fields_ = [("struct_size", c_size_t), ("frame_duration", c_uint64), ("timescale", c_uint32),
                ("codec", c_int32), ("sample_rate", c_uint32), ("channels", c_uint16)]


class RepairOptions(Structure):
    _fields_ = [("struct_size", c_size_t), ("info_path", c_char_p), ("output_path", c_char_p),
                ("overwrite", c_int32), ("in_place", c_int32)]


class RepairReport(Structure):
    _fields_ = [("struct_size", c_size_t), ("outcome", c_int32), ("quicktime", c_int32),
                ("reason", c_char * 1024)]


def load():
    lib = ctypes.CDLL(os.environ.get("KX_MP4_LIBRARY", "libkx_mp4_c.so.1"))
    lib.kx_mp4_muxer_new.restype = c_void_p
    lib.kx_mp4_muxer_last_error.argtypes = [c_void_p, c_char_p, c_size_t]
    lib.kx_mp4_muxer_last_error.restype = c_size_t
    for name, *arguments in (
            ("create", c_char_p, c_void_p), ("set_video_track", POINTER(VideoTrack)),
            ("set_audio_track", POINTER(AudioTrack)),
            ("set_metadata", c_char_p, c_int, c_char_p, c_uint32, c_char_p),
            ("write_video", c_char_p, c_uint32, c_uint64, c_uint64),
            ("write_audio", c_char_p, c_uint32, c_uint64), ("close",), ("free",)):
        getattr(lib, "kx_mp4_muxer_" + name).argtypes = [c_void_p, *arguments]
    lib.kx_mp4_muxer_free.restype = None
    lib.kx_mp4_repair.argtypes = [c_char_p, POINTER(RepairOptions), POINTER(RepairReport)]
    for name in ("video_track", "audio_track", "repair_options"):
        function = getattr(lib, f"kx_mp4_{name}_init")
        function.argtypes, function.restype = [c_void_p, c_size_t], None
    return lib


class Muxer:
    """The library's muxer; a failure is an OSError with the library's text."""

    def __init__(self, lib):
        self._lib, self._handle = lib, lib.kx_mp4_muxer_new()
        if not self._handle:
            raise MemoryError

    def __getattr__(self, operation):
        def call(*arguments):
            if getattr(self._lib, "kx_mp4_muxer_" + operation)(self._handle, *arguments) != 0:
                text = ctypes.create_string_buffer(1024)
                self._lib.kx_mp4_muxer_last_error(self._handle, text, sizeof(text))
                raise OSError(text.value.decode())
        return call

    def __del__(self):
        self._lib.kx_mp4_muxer_free(self._handle)


def declare(lib, muxer):
    video, audio = VideoTrack(), AudioTrack()
    lib.kx_mp4_video_track_init(byref(video), sizeof(video))  # H.264, sets from the stream
    video.timescale, video.frame_duration, video.width, video.height = TIMESCALE, PICTURE_TICKS, 64, 64
    muxer.set_video_track(video)
    lib.kx_mp4_audio_track_init(byref(audio), sizeof(audio))  # AAC LC, 48000 Hz
    audio.channels = 1
    muxer.set_audio_track(audio)
    muxer.set_metadata(b"title", 1, b"Grey", 0, None)


def record(lib, path, stop_after):
    muxer = Muxer(lib)
    muxer.create(path.encode(), None)
    declare(lib, muxer)
    sound = 0
    for number in range(PICTURES):
        if number == stop_after:
            os._exit(0)
        picture, place = GROUP[number % len(GROUP)]
        # One picture later than decoded, so that no B-frame is shown before it can be decoded.
        shown = number - number % len(GROUP) + place + 1
        muxer.write_video(picture, len(picture), shown * PICTURE_TICKS, number * PICTURE_TICKS)
        while sound * TIMESCALE <= number * PICTURE_TICKS * 48000:
            muxer.write_audio(SILENCE, len(SILENCE), sound)
            sound += 1024
    muxer.close()  # only now the file plays
    print(f"{path}: {os.path.getsize(path)} bytes")


def repair(lib, path):
    options, report = RepairOptions(), RepairReport(sizeof(RepairReport))
    lib.kx_mp4_repair_options_init(byref(options), sizeof(options))
    options.in_place = 1
    if lib.kx_mp4_repair(path.encode(), byref(options), byref(report)) != 0:
        raise OSError(f"{path}: {report.reason.decode()}")
    print(f"{path}: repaired")


def main(path, pictures=None):
    lib = load()
    if pictures is None and os.path.exists(path + ".info"):
        repair(lib, path)
    else:
        record(lib, path, int(pictures) if pictures else None)


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    main(*sys.argv[1:])
