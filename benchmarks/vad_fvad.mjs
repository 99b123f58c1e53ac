// Prints WebRTC's decision (0/1) for every 20 ms frame of 16-bit mono 16 kHz WAV files, one
// line of 0/1 characters per file, through the WebAssembly build of libfvad.
// Usage: node vad_fvad.mjs MODULE_DIR MODE FILE...
import fs from 'fs';
import path from 'path';
import { pathToFileURL } from 'url';

const [moduleDir, mode, ...files] = process.argv.slice(2);
const fvad = (await import(pathToFileURL(path.join(moduleDir, 'fvad.js')).href)).default;
const m = await fvad();

function samplesOf(file) {
    const b = fs.readFileSync(file);
    let at = 12;
    while (at + 8 <= b.length) {
        const id = b.toString('ascii', at, at + 4), size = b.readUInt32LE(at + 4);
        if (id === 'fmt ') {
            if (b.readUInt16LE(at + 10) !== 1 || b.readUInt32LE(at + 12) !== 16000
                || b.readUInt16LE(at + 22) !== 16)
                throw new Error(`${file}: not 16-bit mono 16 kHz`);
        } else if (id === 'data') {
            return new Int16Array(b.buffer.slice(b.byteOffset + at + 8, b.byteOffset + at + 8 + size));
        }
        at += 8 + size + (size & 1);
    }
    throw new Error(`${file}: no data chunk`);
}

const hop = 320;
const buffer = m._malloc(hop * 2);
let seconds = 0;
const start = process.hrtime.bigint();
for (const file of files) {
    const samples = samplesOf(file);
    const inst = m._fvad_new();
    m._fvad_set_sample_rate(inst, 16000);
    m._fvad_set_mode(inst, Number(mode));
    let line = '';
    for (let at = 0; at + hop <= samples.length; at += hop) {
        m.HEAP16.set(samples.subarray(at, at + hop), buffer / 2);
        line += m._fvad_process(inst, buffer, hop) > 0 ? '1' : '0';
    }
    m._fvad_free(inst);
    seconds += samples.length / 16000;
    console.log(line);
}
const elapsed = Number(process.hrtime.bigint() - start) / 1e9;
console.error(`webrtc: ${(seconds / elapsed).toFixed(0)} x real time`);
m._free(buffer);
