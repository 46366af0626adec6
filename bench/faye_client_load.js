'use strict';
// Faye's own Node client under the load that bench/client_load.cpp puts on our client services,
// so that both are measured against the same Faye server in the same run.
//
//   node faye_client_load.js URL [--messages N] [--window W] [--rounds R] [--server-pid P]
//                                [--long-polling 1]
//
// URL is http://host:port/path; every client works over a WebSocket once it has handshaken
// (the run waits for the upgrade and fails when it does not happen), or with --long-polling
// stays on long-polling (WebSocket disabled) and only the 1->1 phase runs. In one process, one
// publisher client and N subscriber clients:
//   - throughput 1->1 and 1->4: the publisher sends as fast as `window` unanswered publishes
//     allow (N messages for 1->1, N/4 for 1->4, so both phases make N deliveries); deliveries/s
//     from the first publish to the last delivery, and process.cpuUsage() over that span (with
//     --server-pid, also the CPU time the server process P spent in it, from /proc);
//   - latency: one message in flight, publish -> receive, R rounds after a warm-up.
// Prints one JSON line: {"result":"ok", "oneToOne":{rate,seconds,cpuSeconds,serverCpuSeconds,
// messages,longestGapSeconds}, "oneToFour":{...},
// "latency":{p50Micros,p99Micros,samples}} or {"result":"error",message}.
// The whole run is bounded by two minutes.

const fs = require('fs');
const path = require('path');
// Faye comes from the npm packages of the interop tests, with the shared output helpers.
const {faye, print, fail} = require(path.join(__dirname, '../tests/interop/bayeux_client.js'));

function parseArgs(argv) {
  const options = {url: null, messages: 40000, window: 500, rounds: 5000, serverPid: null,
    longPolling: false};
  for (let i = 0; i < argv.length; i++) {
    const name = argv[i];
    if (!name.startsWith('--')) {
      options.url = name;
      continue;
    }
    const value = Number(argv[++i]);
    if (!Number.isInteger(value) || value <= 0) fail('bad value for ' + name);
    if (name === '--messages') options.messages = value;
    else if (name === '--window') options.window = value;
    else if (name === '--rounds') options.rounds = value;
    else if (name === '--server-pid') options.serverPid = value;
    else if (name === '--long-polling') options.longPolling = true;
    else fail('unknown option ' + name);
  }
  if (!options.url) fail('usage: faye_client_load.js URL [--messages N] [--window W] [--rounds R]');
  return options;
}

const options = parseArgs(process.argv.slice(2));
setTimeout(() => fail('timed out'), 120000).unref();

// CPU seconds (user + system) the server process has used so far, or null without its pid.
function serverCpuSeconds() {
  if (options.serverPid === null) return null;
  const stat = fs.readFileSync('/proc/' + options.serverPid + '/stat', 'utf8');
  // The fields after the parenthesised command name; utime and stime are the 14th and 15th.
  const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
  const ticksPerSecond = 100;  // USER_HZ, fixed at 100 on Linux
  return (Number(fields[11]) + Number(fields[12])) / ticksPerSecond;
}

function within(ms, what, promise) {
  let timer;
  const expiry = new Promise((resolve, reject) => {
    timer = setTimeout(() => reject(new Error(what + ' took more than ' + ms + ' ms')), ms);
  });
  return Promise.race([promise, expiry]).finally(() => clearTimeout(timer));
}

// A client that has handshaken and moved to a WebSocket: the first publish handshakes, and the
// dispatcher switches transports once the socket is open. The client comes back wrapped: it is
// a thenable itself, which an async function's result would be resolved through.
async function webSocketClient() {
  const client = new faye.Client(options.url, {timeout: 60, retry: 1});
  if (options.longPolling) client.disable('websocket');
  await within(10000, 'the handshake', client.publish('/load/hello', {}));
  if (options.longPolling) {
    if (client._dispatcher.connectionType !== 'long-polling')
      throw new Error('on ' + client._dispatcher.connectionType + ', not long-polling');
    return {client};
  }
  const deadline = Date.now() + 5000;
  while (client._dispatcher.connectionType !== 'websocket') {
    if (Date.now() > deadline)
      throw new Error('still on ' + client._dispatcher.connectionType + ' after 5 s');
    await new Promise((resolve) => setTimeout(resolve, 10));
  }
  return {client};
}

// Deliveries per second with one publisher and `subscribers` subscriber clients.
async function throughput(subscribers, messages, channel) {
  const {client: publisher} = await webSocketClient();
  const clients = [];
  for (let s = 0; s < subscribers; s++) clients.push((await webSocketClient()).client);
  const expected = messages * subscribers;
  let delivered = 0;
  let finished = null;
  let allDelivered;
  const done = new Promise((resolve) => (allDelivered = resolve));
  for (const client of clients) {
    await within(10000, 'subscribing', client.subscribe(channel, () => {
      if (++delivered === expected) {
        finished = process.hrtime.bigint();
        allDelivered();
      }
    }));
  }

  const serverBefore = serverCpuSeconds();
  const cpuBefore = process.cpuUsage();
  const started = process.hrtime.bigint();
  let sent = 0;
  let answered = 0;
  let failure = null;
  let lastAnswer = started;
  let longestGap = 0n;
  const pump = () => {
    while (sent < messages && sent - answered < options.window) {
      sent++;
      publisher.publish(channel, {n: sent}).then(
          () => {
            const now = process.hrtime.bigint();
            if (now - lastAnswer > longestGap) longestGap = now - lastAnswer;
            lastAnswer = now;
            answered++;
            pump();
          },
          (error) => (failure = failure || error));
    }
  };
  pump();
  await within(60000, 'delivering ' + expected + ' messages', done);
  const cpu = process.cpuUsage(cpuBefore);
  const serverAfter = serverCpuSeconds();
  if (failure) throw new Error('a publish failed: ' + failure.message);
  const seconds = Number(finished - started) / 1e9;

  for (const client of [publisher, ...clients]) client.disconnect();
  return {
    rate: expected / seconds,
    seconds,
    cpuSeconds: (cpu.user + cpu.system) / 1e6,
    serverCpuSeconds: serverBefore === null ? null : serverAfter - serverBefore,
    messages,
    longestGapSeconds: Number(longestGap) / 1e9,
  };
}

// Publish -> receive latency with one message in flight, in microseconds.
async function latency(rounds) {
  const {client: publisher} = await webSocketClient();
  const {client: subscriber} = await webSocketClient();
  const warmUp = Math.min(1000, rounds);
  const samples = [];
  let sentAt = 0n;
  let count = 0;
  let finish;
  const done = new Promise((resolve) => (finish = resolve));
  const next = () => {
    sentAt = process.hrtime.bigint();
    publisher.publish('/load/latency', {n: count});
  };
  await within(10000, 'subscribing', subscriber.subscribe('/load/latency', () => {
    const micros = Number(process.hrtime.bigint() - sentAt) / 1000;
    if (count++ >= warmUp) samples.push(micros);
    if (count === rounds + warmUp) finish();
    else next();
  }));
  next();
  await within(60000, rounds + ' latency rounds', done);
  for (const client of [publisher, subscriber]) client.disconnect();
  samples.sort((a, b) => a - b);
  return {
    p50Micros: samples[Math.floor(samples.length / 2)],
    p99Micros: samples[Math.floor(samples.length * 99 / 100)],
    samples: samples.length,
  };
}

(async () => {
  // A short run first, so that the measured ones run compiled code.
  await throughput(1, Math.min(5000, options.messages), '/load/warm');
  const oneToOne = await throughput(1, options.messages, '/load/one');
  if (options.longPolling) {
    print({result: 'ok', oneToOne});
    process.exit(0);
  }
  const oneToFour = await throughput(4, Math.max(1, Math.floor(options.messages / 4)), '/load/four');
  const lat = await latency(options.rounds);
  print({result: 'ok', oneToOne, oneToFour, latency: lat});
  process.exit(0);
})().catch((error) => fail(error && error.stack ? error.stack : error));
