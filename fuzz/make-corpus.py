#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Writes the seed inputs of the fuzz harnesses into fuzz/corpus/<harness>/.

Each seed is a small well-formed input, so that a run starts past the first checks of its reader
and mutates real structure: cache entries of both kinds (with the key text the harness reads them
as, and a valid checksum), WAVE files with the chunks the chunk walk reads (fmt, bext, iXML, ds64),
R3D headers with every record R3DHeader knows, and text-sync regions files with every key the
reader knows. The output is the same on every run; the seeds
are kept in git, and this script says how they were made.
"""
import os
import struct
import zlib

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def write(harness, name, data):
    folder = os.path.join(ROOT, harness)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


# ---- envelope_cache_fuzz: the key text must match EnvelopeCacheFuzz.cpp -----------------------

KEY = b"/shoot/A001.WAV|4096|1700000000"


def sealed(body):
    return body + struct.pack("<I", zlib.crc32(body))


def pair_entry(duration, preview, envelope):
    body = struct.pack("<II", 5, len(KEY)) + KEY + struct.pack("<d", duration)
    body += struct.pack("<I", len(preview)) + struct.pack("<%df" % len(preview), *preview)
    body += struct.pack("<I", len(envelope)) + struct.pack("<%df" % len(envelope), *envelope)
    return sealed(body)


def bands_entry(bands, frames):
    body = struct.pack("<II", 7, len(KEY)) + KEY + struct.pack("<II", bands, frames)
    values = [((b * 7 + f * 3) % 11) / 10.0 - 0.5 for b in range(bands) for f in range(frames)]
    body += struct.pack("<%df" % len(values), *values)
    return sealed(body)


def numbers_entry(values):
    body = struct.pack("<II", 1, len(KEY)) + KEY + struct.pack("<I", len(values))
    body += struct.pack("<%dd" % len(values), *values)
    return sealed(body)


write("envelope_cache_fuzz", "pair-empty", pair_entry(0.0, [], []))
write("envelope_cache_fuzz", "pair-small", pair_entry(12.5, [i / 10.0 for i in range(10)], [0.25] * 20))
write("envelope_cache_fuzz", "bands-empty", bands_entry(0, 0))
write("envelope_cache_fuzz", "bands-small", bands_entry(8, 12))
write("envelope_cache_fuzz", "numbers-empty", numbers_entry([]))
write("envelope_cache_fuzz", "numbers-pair", numbers_entry([-0.0123, 41.5, 125.0, 0.2, 4, 4, 4, 1e-5]))

# ---- riff_fuzz ----------------------------------------------------------------------------------


def chunk(cid, payload):
    pad = b"\0" if len(payload) % 2 else b""
    return cid + struct.pack("<I", len(payload)) + payload + pad


def fmt(channels=2, rate=48000, bits=24):
    align = channels * bits // 8
    return chunk(b"fmt ", struct.pack("<HHIIHH", 1, channels, rate, rate * align, align, bits))


def bext(time_reference=1_234_567_890):
    fields = b"A field recorder".ljust(256, b"\0") + b"ZOOM F8".ljust(32, b"\0")
    fields += b"REF0001".ljust(32, b"\0") + b"2024-05-01" + b"14:03:07"
    fields += struct.pack("<Q", time_reference) + struct.pack("<H", 1)
    return chunk(b"bext", fields.ljust(602, b"\0"))


IXML = (b'<?xml version="1.0" encoding="UTF-8"?><BWFXML><PROJECT>Demo</PROJECT><SCENE>1</SCENE>'
        b"<TAKE>2</TAKE><SPEED><TIMECODE_RATE>25/1</TIMECODE_RATE>"
        b"<TIMESTAMP_SAMPLES_SINCE_MIDNIGHT_LO>1234567890</TIMESTAMP_SAMPLES_SINCE_MIDNIGHT_LO>"
        b"</SPEED><TRACK_LIST><TRACK_COUNT>2</TRACK_COUNT></TRACK_LIST></BWFXML>")


def riff(chunks):
    body = b"WAVE" + b"".join(chunks)
    return b"RIFF" + struct.pack("<I", len(body)) + body


write("riff_fuzz", "plain.wav", riff([fmt(1, 16000, 16), chunk(b"data", bytes(64))]))
write("riff_fuzz", "bwf.wav", riff([fmt(), bext(), chunk(b"iXML", IXML), chunk(b"data", bytes(96))]))
data = bytes(48)
ds64 = chunk(b"ds64", struct.pack("<QQQI", 0, len(data), len(data) // 6, 1) + b"data" + struct.pack("<Q", len(data)))
body = b"WAVE" + ds64 + fmt() + bext(0) + b"data" + struct.pack("<I", 0xFFFFFFFF) + data
write("riff_fuzz", "rf64.wav", b"RF64" + struct.pack("<I", 0xFFFFFFFF) + body)

# ---- r3d_header_fuzz: big-endian, as R3DTestFiles.hpp describes the layout ---------------------


def record(rtype, tag, payload):
    return struct.pack(">HBB", 4 + len(payload), rtype, tag) + payload


def text(tag, s):
    payload = s.encode() + b"\0"
    payload += b"\0" * (-len(payload) % 4)
    return record(0x10, tag, payload)


def r3d(records, width=4096, height=2160, numerator=24000, denominator=1001, size=512):
    out = bytearray(max(size, 64 + len(records)))
    struct.pack_into(">I", out, 0, len(out))
    out[4:8] = b"RED2"
    out[16:19] = b"rdi"
    struct.pack_into(">II", out, 24, width, height)
    struct.pack_into(">HI", out, 34, denominator, numerator)
    out[64:64 + len(records)] = records
    return bytes(out)


full = b"".join([
    record(0x20, 0x66, struct.pack(">f", 23.976)),
    text(0xA0, "RED TEST BODY"), text(0xA1, "TEST 6K S35"), text(0xC4, "A001_C001_0101AB.WAV"),
    text(0xAD, "01:00:00:00"), text(0xAE, "14:03:27:12"), text(0x32, "T0001"), text(0x06, "M0042"),
    text(0x19, "A001"), text(0x1A, "_0101AB"), text(0x1B, "001"), text(0x25, "1.2.3"),
    record(0x50, 0xBF, struct.pack(">I", 48000)), text(0x56, "A001_C001_0101AB_001.R3D"),
])
write("r3d_header_fuzz", "typical.r3d", r3d(full))
minimal = record(0x20, 0x66, struct.pack(">f", 25.0)) + b"".join(
    record(0x50, 0x01, struct.pack(">I", i)) for i in range(7))
write("r3d_header_fuzz", "minimal.r3d", r3d(minimal, 1920, 1080, 25, 1, 256))

# ---- text_sync_store_fuzz: regions files as the transcription tool writes them ------------------

REGIONS = b"""{
  "min_support": 3, "ngram": 4,
  "regions": [
    {"region_key": "day-0", "label": "Friday", "track_names": ["CamA", "Zoom"],
     "support_edges": [{"a": "CamA", "b": "Zoom", "support": 7, "approx_offset_sec": 12.5,
                        "time_range_a": [1.5, 2.5], "time_range_b": null}]},
    {"region_key": "day-1", "label": "Saturday", "track_names": ["CamB", "Tascam"]}
  ],
  "pairs": [{"a": "CamA", "b": "Zoom", "match_count": 9, "best": {"approx_offset_sec": 12.25, "support": 7}},
            {"a": "CamB", "b": "Tascam"}]
}
"""
write("text_sync_store_fuzz", "regions.json", REGIONS)
write("text_sync_store_fuzz", "minimal.json", b'{"regions": []}')
write("text_sync_store_fuzz", "session.txt", "  /Volumes/Drehtag Zürich/撮影 2\xa0".encode())
