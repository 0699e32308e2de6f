// Reads MP4 files with the readers that live in JavaScript, and tells the samples of each track.
//
// usage: node live_index_readers.mjs FILE ...     (mediabunny and mp4box must be resolvable)
//
// One line of JSON a file: {"mediabunny": {"vide": [[dts or pts, size] ...]}, "mp4box.js": ...}, times
// in seconds. A reader that is not installed is left out; one that fails tells "error".
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { pathToFileURL } from 'node:url';

const require = createRequire(pathToFileURL(process.cwd() + '/').href);
async function load(name) {
  try {
    const library = await import(pathToFileURL(require.resolve(name)).href);
    return library.Input ?? library.createFile ? library : library.default;
  } catch {
    return null;
  }
}
const mediabunny = await load('mediabunny');
const mp4box = await load('mp4box');

async function withMediabunny(bytes) {
  const { Input, ALL_FORMATS, BufferSource, EncodedPacketSink } = mediabunny;
  const input = new Input({ formats: ALL_FORMATS, source: new BufferSource(bytes) });
  const found = {};
  for (const track of await input.getTracks()) {
    const samples = [];
    for await (const packet of new EncodedPacketSink(track).packets())
      samples.push([packet.timestamp, packet.byteLength, packet.type === 'key']);
    found[track.type === 'video' ? 'vide' : 'soun'] = samples;
  }
  return found;
}

function withMp4box(bytes) {
  const file = mp4box.createFile();
  const buffer = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
  buffer.fileStart = 0;
  const found = {};
  file.appendBuffer(buffer);
  file.flush();
  const names = { video: 'vide', audio: 'soun' };
  for (const track of file.getInfo().tracks) {
    const samples = file.getTrackSamplesInfo(track.id) ?? [];
    if (names[track.type] !== undefined)
      found[names[track.type]] = samples.map((s) => [s.cts / s.timescale, s.size, s.is_sync]);
  }
  return found;
}

for (const path of process.argv.slice(2)) {
  const result = { path };
  for (const [name, library, read] of [
    ['mediabunny', mediabunny, withMediabunny],
    ['mp4box.js', mp4box, withMp4box],
  ]) {
    if (library === null) continue;
    try {
      result[name] = await read(readFileSync(path));
    } catch (error) {
      result[name] = { error: String(error) };
    }
  }
  console.log(JSON.stringify(result));
}
