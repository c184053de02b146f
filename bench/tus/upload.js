// SPDX-License-Identifier: MIT
// Uploads one file with tus-js-client and prints the elapsed seconds and this process's
// peak resident memory, for bench/tusbench.
//   node upload.js <file> <endpoint> <chunkSize>
'use strict';
const fs = require('fs');
const tus = require('tus-js-client');

const [file, endpoint, chunkSize] = process.argv.slice(2);
const size = fs.statSync(file).size;
const start = process.hrtime.bigint();
const upload = new tus.Upload(fs.createReadStream(file), {
    endpoint,
    chunkSize: Number(chunkSize),
    uploadSize: size,
    retryDelays: [0, 1000, 3000],
    metadata: { filename: 'bench.bin' },
    onError(err) {
        console.error('upload failed: ' + err);
        process.exit(1);
    },
    onSuccess() {
        const seconds = Number(process.hrtime.bigint() - start) / 1e9;
        const peak = process.resourceUsage().maxRSS * 1024;
        console.log(JSON.stringify({ seconds, bytes: size, peakRss: peak }));
    },
});
upload.start();
