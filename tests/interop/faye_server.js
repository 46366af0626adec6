'use strict';
// A Faye Bayeux server for the interop tests and benchmarks.
//
//   node faye_server.js [--port N] [--timeout SECONDS] [--mount /bayeux]
//                       [--cert FILE --key FILE] [--redis-socket PATH] [--show-requests 1]
//
// Listens on 127.0.0.1 (a free port unless --port is given), printing the port as its first
// stdout line; serves https and wss with --cert/--key, and joins a cluster through the
// faye-redis engine with --redis-socket. --show-requests prints a JSON line per HTTP request and
// upgrade (method, path, Authorization and Cookie) and sets three cookies on every HTTP answer:
// `sticky` for the whole site, `other` for another path and `tls` only over TLS. It exits when
// stdin closes or on SIGTERM/SIGINT, so that a parent that dies never leaves it behind.

const fs = require('fs');
const faye = require('faye');

function die(message, status) {
  process.stderr.write('faye_server: ' + message + '\n');
  process.exit(status);
}

const options = {'--port': 0, '--timeout': 2, '--mount': '/bayeux', '--cert': null, '--key': null,
  '--redis-socket': null, '--show-requests': null};
const argv = process.argv.slice(2);
for (let i = 0; i < argv.length; i += 2) {
  if (!Object.keys(options).includes(argv[i])) die('unknown option ' + argv[i], 2);
  if (argv[i + 1] === undefined) die('missing value after ' + argv[i], 2);
  options[argv[i]] = argv[i + 1];
}

const adapterOptions = {mount: options['--mount'], timeout: Number(options['--timeout'])};
if (options['--redis-socket'] !== null)
  adapterOptions.engine = {type: require('faye-redis'), socket: options['--redis-socket']};
const bayeux = new faye.NodeAdapter(adapterOptions);
const server = options['--cert']
    ? require('https').createServer({cert: fs.readFileSync(options['--cert']), key: fs.readFileSync(options['--key'])})
    : require('http').createServer();
server.on('request', (request, response) => response.writeHead(404).end());
bayeux.attach(server);
if (options['--show-requests']) {
  const show = (request) => process.stdout.write(JSON.stringify({method: request.method,
    path: request.url, authorization: request.headers.authorization || '',
    cookie: request.headers.cookie || ''}) + '\n');
  server.prependListener('upgrade', show);
  server.prependListener('request', (request, response) => {
    show(request);
    response.setHeader('Set-Cookie', ['sticky=n1; Path=/; HttpOnly', 'other=x; Path=/elsewhere',
      'tls=y; Secure']);
  });
}

// Exiting closes the sockets and the engine's connections with them.
const stop = () => process.exit(0);
server.on('error', (e) => die(e.message, 1));
server.listen(Number(options['--port']), '127.0.0.1', () => process.stdout.write(server.address().port + '\n'));
for (const event of ['end', 'close']) process.stdin.on(event, stop);
process.stdin.resume();
for (const signal of ['SIGTERM', 'SIGINT']) process.on(signal, stop);
