// CometD's JavaScript client, run in Node, in a scripted exchange with a Bayeux server, for the
// interop tests.
//
//   node cometd_client.mjs URL exchange [--only long-polling] [--api-key K]
//   node cometd_client.mjs URL talk LISTEN PUBLISH COUNT [--api-key K]
//
// URL is http://host:port/path; CometD tries WebSocket first unless --only long-polling.
// The scenarios are those of faye_client.js: `exchange` subscribes to an exact and a wildcard
// channel, publishes, receives, unsubscribes and disconnects; `talk` subscribes to LISTEN,
// prints {"event":"ready"}, publishes {"from":"cometd"} on PUBLISH and prints COUNT messages.
// Every line on stdout is a JSON object; the last is {"result":"ok",...} or
// {"result":"error","message":...} (exit status 1). The whole run is bounded by 15 seconds.

import {adapt} from 'cometd-nodejs-client';
import {CometD} from 'cometd';

adapt();

function print(object) {
  process.stdout.write(JSON.stringify(object) + '\n');
}

function fail(message) {
  print({result: 'error', message: String(message)});
  process.exit(1);
}

const options = {only: null, apiKey: null, positional: []};
const argv = process.argv.slice(2);
for (let i = 0; i < argv.length; i++) {
  if (argv[i] === '--only') options.only = argv[++i];
  else if (argv[i] === '--api-key') options.apiKey = argv[++i];
  else options.positional.push(argv[i]);
}
const [url, scenario, ...rest] = options.positional;
if (!url || !scenario) fail('usage: cometd_client.mjs URL exchange|talk ...');
setTimeout(() => fail('timed out'), 15000).unref();

const cometd = new CometD();
cometd.configure({url, logLevel: 'warn'});
if (options.only === 'long-polling') cometd.unregisterTransport('websocket');

// Turns a CometD call taking a reply callback into a promise of a successful reply.
function call(what, start) {
  return new Promise((resolve, reject) => {
    start((reply) => {
      if (reply && reply.successful) resolve(reply);
      else reject(new Error(what + ' failed: ' + JSON.stringify(reply)));
    });
  });
}

// Messages in arrival order, taken one at a time.
function inbox() {
  const messages = [];
  let waiter = null;
  return {
    push(message) {
      messages.push({channel: message.channel, data: message.data});
      if (waiter) waiter();
    },
    pending() {
      return messages.length;
    },
    async next(ms) {
      while (messages.length === 0) {
        await new Promise((resolve, reject) => {
          waiter = resolve;
          setTimeout(() => reject(new Error('no message within ' + ms + ' ms')), ms).unref();
        });
      }
      return messages.shift();
    },
  };
}

let handshakeTransport = null;

async function handshake() {
  const props = options.apiKey ? {ext: {orvapikey: options.apiKey}} : {};
  await call('handshake', (done) => cometd.handshake(props, done));
  handshakeTransport = cometd.getTransport().type;
}

async function subscribe(channel, box) {
  let handle = null;
  await call('subscribe ' + channel, (done) => {
    handle = cometd.subscribe(channel, (message) => box.push(message), done);
  });
  return handle;
}

function publish(channel, data) {
  return call('publish ' + channel, (done) => cometd.publish(channel, data, done));
}

async function exchange() {
  const exact = inbox();
  const wild = inbox();
  const exactHandle = await subscribe('/orvale/interop/exact', exact);
  await subscribe('/orvale/interop/wild/*', wild);
  await publish('/orvale/interop/exact', {n: 1});
  await publish('/orvale/interop/wild/a', {n: 2});
  for (const message of [await exact.next(5000), await wild.next(5000)])
    print({event: 'received', channel: message.channel, data: message.data});

  await call('unsubscribe', (done) => cometd.unsubscribe(exactHandle, done));
  await publish('/orvale/interop/exact', {n: 3});
  await publish('/orvale/interop/wild/b', {n: 4});
  const third = await wild.next(5000);
  print({event: 'received', channel: third.channel, data: third.data});
  // Deliveries keep publication order: the exact message would have come before this one.
  if (exact.pending() !== 0) fail('received on /orvale/interop/exact after unsubscribing');
}

async function talk(listen, publishOn, count) {
  const box = inbox();
  await subscribe(listen, box);
  print({event: 'ready'});
  await publish(publishOn, {from: 'cometd'});
  for (let i = 0; i < count; i++) {
    const message = await box.next(10000);
    print({event: 'received', channel: message.channel, data: message.data});
  }
}

try {
  await handshake();
  if (scenario === 'exchange') await exchange();
  else if (scenario === 'talk') await talk(rest[0], rest[1], Number(rest[2] || 1));
  else fail('unknown scenario ' + scenario);
  const transport = cometd.getTransport().type;
  await call('disconnect', (done) => cometd.disconnect(done));
  print({result: 'ok', handshakeTransport, transport});
  process.exit(0);
} catch (e) {
  fail(e && e.message ? e.message : e);
}
