'use strict';
// Faye's Node client in a scripted exchange with a Bayeux server, for the interop tests.
//
//   node faye_client.js URL exchange [--only long-polling] [--api-key K]
//   node faye_client.js URL talk LISTEN PUBLISH COUNT [--api-key K]
//
// URL is http://host:port/path: Faye handshakes over long-polling and then moves to a
// WebSocket unless --only long-polling is given.
//
// exchange: subscribes to an exact and a wildcard channel, publishes on both and receives,
//   unsubscribes from the exact one, publishes again and receives only on the wildcard, then
//   disconnects.
// talk: subscribes to LISTEN, prints {"event":"ready"}, publishes {"from":"faye"} on PUBLISH,
//   prints each of COUNT messages received on LISTEN, then disconnects.
//
// Every line on stdout is a JSON object; the last is {"result":"ok",...} or
// {"result":"error","message":...} (exit status 1). The whole run is bounded by 15 seconds.
//
// Required as a module (by bench/faye_client_load.js), it gives Faye, resolved from this folder's
// packages, and the output helpers, and runs nothing.

const faye = require('faye');

function print(object) {
  process.stdout.write(JSON.stringify(object) + '\n');
}

function fail(message) {
  print({result: 'error', message: String(message)});
  process.exit(1);
}

module.exports = {faye, print, fail};
// A module's top level may return in Node's CommonJS: the scenarios run only as a script.
if (require.main !== module) return;

function parseArgs(argv) {
  const options = {only: null, apiKey: null, positional: []};
  for (let i = 0; i < argv.length; i++) {
    if (argv[i] === '--only') options.only = argv[++i];
    else if (argv[i] === '--api-key') options.apiKey = argv[++i];
    else options.positional.push(argv[i]);
  }
  return options;
}

const options = parseArgs(process.argv.slice(2));
const [url, scenario, ...rest] = options.positional;
if (!url || !scenario) fail('usage: faye_client.js URL exchange|talk ...');
setTimeout(() => fail('timed out'), 15000).unref();

const client = new faye.Client(url, {timeout: 30, retry: 1});
if (options.only === 'long-polling') client.disable('websocket');

// Records the transport each outgoing message used, and adds the API key to the handshake.
const transports = {handshake: null, last: null};
client.addExtension({
  outgoing(message, callback) {
    const type = client._dispatcher.connectionType;
    if (message.channel === '/meta/handshake') {
      transports.handshake = type;
      if (options.apiKey) message.ext = Object.assign({}, message.ext, {orvapikey: options.apiKey});
    } else {
      transports.last = type;
    }
    callback(message);
  },
});

// Messages in arrival order, taken one at a time.
function inbox() {
  const messages = [];
  let waiter = null;
  return {
    push(channel, data) {
      messages.push({channel, data});
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

async function subscribe(channel, box) {
  const subscription = client.subscribe(channel, () => {}).withChannel((c, data) => box.push(c, data));
  await subscription;
  // Wrapped: an async function returning the thenable subscription would resolve to its value.
  return {subscription};
}

async function exchange() {
  const exact = inbox();
  const wild = inbox();
  const {subscription: exactSub} = await subscribe('/orvale/interop/exact', exact);
  await subscribe('/orvale/interop/wild/*', wild);
  await client.publish('/orvale/interop/exact', {n: 1});
  await client.publish('/orvale/interop/wild/a', {n: 2});
  const first = await exact.next(5000);
  const second = await wild.next(5000);
  print({event: 'received', channel: first.channel, data: first.data});
  print({event: 'received', channel: second.channel, data: second.data});

  exactSub.cancel();
  // The unsubscribe goes out before the next publish; deliveries keep publication order.
  await client.publish('/orvale/interop/exact', {n: 3});
  await client.publish('/orvale/interop/wild/b', {n: 4});
  const third = await wild.next(5000);
  print({event: 'received', channel: third.channel, data: third.data});
  if (exact.pending() !== 0) fail('received on /orvale/interop/exact after unsubscribing');
}

async function talk(listen, publish, count) {
  const box = inbox();
  await subscribe(listen, box);
  print({event: 'ready'});
  await client.publish(publish, {from: 'faye'});
  for (let i = 0; i < count; i++) {
    const message = await box.next(10000);
    print({event: 'received', channel: message.channel, data: message.data});
  }
}

(async () => {
  try {
    if (scenario === 'exchange') await exchange();
    else if (scenario === 'talk') await talk(rest[0], rest[1], Number(rest[2] || 1));
    else fail('unknown scenario ' + scenario);
    await client.disconnect();
    print({result: 'ok', handshakeTransport: transports.handshake, transport: transports.last});
    process.exit(0);
  } catch (e) {
    fail(e && e.message ? e.message : e);
  }
})();
