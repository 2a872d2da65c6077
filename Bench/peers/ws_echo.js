// WebSocket echo server on Node's `ws` package, used only as a benchmark
// peer: every message is sent back whole, binary or text as it came.
//
// Usage: NODE_PATH=DIR/node_modules node ws_echo.js --port PORT
//
// One process, one event loop (Node's usual deployment for a small
// device). perMessageDeflate is off, as in ws's own default, so every
// server echoes the bytes it got without compressing them; the HTTP server
// underneath gets the same 60 s idle timeout as every server in the
// harness.
'use strict';
const http = require('http');
const { WebSocketServer } = require('ws');

const args = process.argv.slice(2);
const at = args.indexOf('--port');
const port = at >= 0 ? Number(args[at + 1]) : 0;
if (!port) {
  console.error('usage: node ws_echo.js --port PORT');
  process.exit(2);
}

const server = http.createServer((req, res) => {
  res.writeHead(404, { 'Content-Length': '0' });
  res.end();
});
server.keepAliveTimeout = 60000;
const wss = new WebSocketServer({ server, perMessageDeflate: false, maxPayload: 1 << 20 });
wss.on('connection', (socket) => {
  socket.on('message', (data, isBinary) => socket.send(data, { binary: isBinary }));
  socket.on('error', () => socket.terminate());
});
server.listen(port, '127.0.0.1', () => console.error(`ws_echo: echoing on 127.0.0.1:${port}`));
for (const sig of ['SIGINT', 'SIGTERM']) process.on(sig, () => process.exit(0));
