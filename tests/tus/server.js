// SPDX-License-Identifier: MIT
//
// The tus 1.0.0 server the upload tests talk to: @tus/server with a file store.
//
//   node server.js <port> <store directory> <request log file> [scheme-relative]
//
// With "scheme-relative" the Location of a created upload is "//host/files/<id>", a form
// some proxies produce; otherwise it is an absolute http URL.
// Listens on 127.0.0.1 only; port 0 picks a free one. Every request's method, URL and
// raw headers (names as sent, in the order sent) are appended to the log file as one JSON
// line before the request is handled, synchronously, so that a test may kill the server
// at any moment and still read what it received. Once listening, prints
// "listening <port>" on its own line.
import fs from 'node:fs';
import http from 'node:http';
import { Server } from '@tus/server';
import { FileStore } from '@tus/file-store';

const [portArg, directory, logFile, locationForm] = process.argv.slice(2);
if (portArg === undefined || !directory || !logFile) {
    console.error('usage: node server.js <port> <store directory> <request log file> [scheme-relative]');
    process.exit(2);
}

const options = { path: '/files', datastore: new FileStore({ directory }) };
if (locationForm === 'scheme-relative') {
    options.generateUrl = (req, { host, path, id }) => `//${host}${path}/${id}`;
}
const tus = new Server(options);

const server = http.createServer((req, res) => {
    const headers = [];
    for (let i = 0; i + 1 < req.rawHeaders.length; i += 2) {
        headers.push([req.rawHeaders[i], req.rawHeaders[i + 1]]);
    }
    fs.appendFileSync(logFile, JSON.stringify({ method: req.method, url: req.url, headers }) + '\n');
    tus.handle(req, res);
});

server.listen({ host: '127.0.0.1', port: Number(portArg) }, () => {
    process.stdout.write(`listening ${server.address().port}\n`);
});

const stop = () => {
    server.close(() => process.exit(0));
    server.closeAllConnections();
};
process.on('SIGTERM', stop);
process.on('SIGINT', stop);

// The test that started us holds our standard input open; when it ends, even by a crash,
// so do we, rather than linger on the port.
process.stdin.on('end', () => process.exit(0));
process.stdin.on('error', () => process.exit(0));
process.stdin.resume();
