'use strict';
// A Faye Bayeux server for the interop tests and benchmarks.
//
//   node faye_server.js [--port N] [--timeout SECONDS] [--mount /bayeux]
//                       [--cert FILE --key FILE] [--redis-port N]
//
// Listens on 127.0.0.1 (a free port unless --port is given) and prints the port as the first
// line on stdout, so the parent knows when it can connect. With --cert/--key it serves https and
// wss; with --redis-port it joins a cluster through the faye-redis engine. It exits when stdin
// closes or on SIGTERM/SIGINT, so a parent that dies never leaves it behind.

const fs = require('fs');
const http = require('http');
const https = require('https');
const faye = require('faye');

function parseArgs(argv) {
  const options = {port: 0, timeout: 2, mount: '/bayeux', cert: null, key: null, redisPort: null};
  for (let i = 0; i < argv.length; i++) {
    const name = argv[i];
    const value = argv[i + 1];
    if (value === undefined) throw new Error('missing value after ' + name);
    switch (name) {
      case '--port': options.port = Number(value); break;
      case '--timeout': options.timeout = Number(value); break;
      case '--mount': options.mount = value; break;
      case '--cert': options.cert = value; break;
      case '--key': options.key = value; break;
      case '--redis-port': options.redisPort = Number(value); break;
      default: throw new Error('unknown option ' + name);
    }
    i++;
  }
  return options;
}

let options;
try {
  options = parseArgs(process.argv.slice(2));
} catch (e) {
  process.stderr.write('faye_server: ' + e.message + '\n');
  process.exit(2);
}

const adapterOptions = {mount: options.mount, timeout: options.timeout};
if (options.redisPort !== null) {
  adapterOptions.engine = {type: require('faye-redis'), host: '127.0.0.1', port: options.redisPort};
}
const bayeux = new faye.NodeAdapter(adapterOptions);

const server = options.cert
    ? https.createServer({cert: fs.readFileSync(options.cert), key: fs.readFileSync(options.key)})
    : http.createServer();
server.on('request', (request, response) => {
  response.writeHead(404, {'Content-Type': 'text/plain'});
  response.end('not found\n');
});
bayeux.attach(server);

let stopping = false;
function stop() {
  if (stopping) return;
  stopping = true;
  try {
    bayeux.close();
  } catch (e) {
    // Closing an engine that never connected may throw; exiting is all that matters here.
  }
  process.exit(0);
}

server.on('error', (e) => {
  process.stderr.write('faye_server: ' + e.message + '\n');
  process.exit(1);
});
server.listen(options.port, '127.0.0.1', () => {
  process.stdout.write(server.address().port + '\n');
});

process.stdin.on('end', stop);
process.stdin.on('close', stop);
process.stdin.resume();
process.on('SIGTERM', stop);
process.on('SIGINT', stop);
