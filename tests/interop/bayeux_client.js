'use strict';
// Faye's or CometD's client, the Node one or the browser build, in a scripted exchange with a
// Bayeux server at URL (http://host:port/path):
//
//   node bayeux_client.js faye|cometd URL exchange|talk LISTEN PUBLISH COUNT|mesh NAME CHANNEL...
//        [--only long-polling] [--api-key K] [--browser PAGE_PORT [--screenshot FILE]]
//
// exchange: exact and wildcard subscriptions, publishes on both, then only the wildcard's.
// talk: subscribes to LISTEN, prints {"event":"ready"}, publishes {"from":"PEER[ long-polling]"}
//   on PUBLISH and prints each of COUNT messages received on LISTEN.
// mesh: subscribes to each CHANNEL, prints {"event":"ready"} and every message. Data with `start`
//   (all names) makes it publish {"from":NAME,"n":n} for n < data.count on /orvale/mesh/all/NAME,
//   then {"from":NAME} on /orvale/mesh/to/PEER for each other peer; `stop` ends the run.
//   Comma-separated URLs go through a local balancer to the first hub that accepts.
// --only long-polling keeps clients off WebSockets (a browser off callback-polling too, so it uses
// CORS). --browser runs in headless Chromium ($CHROMIUM or /usr/bin/chromium) on a page at
// PAGE_PORT; --screenshot saves /status to FILE once it shows figures, prints {"event":"status"}
// and holds the session until SIGUSR2. Each stdout line is JSON, the last {"result":"ok"} or
// {"result":"error","message":...} (status 1), within 15 s (40 s for mesh and --browser).
// Required as a module (by bench/faye_client_load.js) it gives Faye and the output helpers only.

const faye = require('faye');
const print = (object) => process.stdout.write(JSON.stringify(object) + '\n');
function fail(message) {
  print({result: 'error', message: String(message)});
  process.exit(1);
}
module.exports = {faye, print, fail};
if (require.main !== module) return;

// Both clients behind one interface; `used` records the transport of the handshake and the last.
// These functions also run in the browser page, so they take the client library as an argument.
function fayeClient(Faye, url, only, apiKey) {
  const client = new Faye.Client(url, {timeout: 30, retry: 1});
  if (only === 'long-polling') client.disable('websocket');
  client.disable('eventsource');  // a browser's; no server here offers it
  const used = {handshake: null, last: null};
  client.addExtension({
    outgoing(message, callback) {
      const type = client._dispatcher.connectionType;
      if (message.channel !== '/meta/handshake') used.last = type;
      else {
        used.handshake = type;
        if (apiKey) message.ext = Object.assign({}, message.ext, {orvapikey: apiKey});
      }
      callback(message);
    },
  });
  return {
    used,
    handshake: async () => {},  // Faye handshakes with its first request
    async subscribe(channel, push) {
      const subscription = client.subscribe(channel, () => {}).withChannel(push);
      await subscription;
      return {subscription};  // wrapped: awaiting the thenable itself would unwrap it
    },
    unsubscribe: async (handle) => handle.subscription.cancel(),
    publish: (channel, data) => client.publish(channel, data),
    disconnect: () => client.disconnect(),
  };
}

function cometdClient(CometD, url, only, apiKey) {
  const cometd = new CometD();
  cometd.configure({url, logLevel: 'warn'});
  cometd.unregisterTransport('callback-polling');
  if (only === 'long-polling') cometd.unregisterTransport('websocket');
  // A CometD call taking a reply callback, as a promise of a successful reply.
  const call = (what, start) => new Promise((resolve, reject) => start((reply) => {
    if (reply && reply.successful) resolve(reply);
    else reject(new Error(what + ' failed: ' + JSON.stringify(reply)));
  }));
  const used = {handshake: null, last: null};
  return {
    used,
    async handshake() {
      await call('handshake', (done) => cometd.handshake(apiKey ? {ext: {orvapikey: apiKey}} : {}, done));
      used.handshake = cometd.getTransport().type;
    },
    async subscribe(channel, push) {
      let handle = null;
      await call('subscribe ' + channel,
          (done) => (handle = cometd.subscribe(channel, (m) => push(m.channel, m.data), done)));
      return handle;
    },
    unsubscribe: (handle) => call('unsubscribe', (done) => cometd.unsubscribe(handle, done)),
    publish: (channel, data) => call('publish ' + channel, (done) => cometd.publish(channel, data, done)),
    async disconnect() {
      used.last = cometd.getTransport().type;
      await call('disconnect', (done) => cometd.disconnect(done));
    },
  };
}

// Messages in arrival order, taken (and printed) one at a time.
function inbox() {
  const messages = [];
  let waiter = null;
  return {
    push(channel, data) {
      messages.push({channel, data});
      if (waiter) waiter();
    },
    pending: () => messages.length,
    async next(ms) {
      while (messages.length === 0) {
        await new Promise((resolve, reject) => {
          waiter = resolve;
          setTimeout(() => reject(new Error('no message within ' + ms + ' ms')), ms);
        });
      }
      print({event: 'received', ...messages.shift()});
    },
  };
}

const scenarios = {
  async exchange(client) {
    const exact = inbox(), wild = inbox();
    const exactHandle = await client.subscribe('/orvale/interop/exact', exact.push);
    await client.subscribe('/orvale/interop/wild/*', wild.push);
    await client.publish('/orvale/interop/exact', {n: 1});
    await client.publish('/orvale/interop/wild/a', {n: 2});
    await exact.next(5000);
    await wild.next(5000);
    await client.unsubscribe(exactHandle);
    await client.publish('/orvale/interop/exact', {n: 3});
    await client.publish('/orvale/interop/wild/b', {n: 4});
    await wild.next(5000);
    // Deliveries keep publication order: the exact message would have come before this one.
    if (exact.pending() !== 0) fail('received on /orvale/interop/exact after unsubscribing');
  },
  async talk(client, [listen, publish, count], peer) {
    const box = inbox();
    await client.subscribe(listen, box.push);
    print({event: 'ready'});
    await client.publish(publish, {from: peer});
    for (let i = 0; i < Number(count || 1); i++) await box.next(10000);
  },
  async mesh(client, [name, ...channels]) {
    let stop;
    const stopped = new Promise((resolve) => (stop = resolve));
    const publishAll = async ({start, count}) => {
      for (let n = 0; n < count; n++) await client.publish('/orvale/mesh/all/' + name, {from: name, n});
      for (const peer of start) if (peer !== name) await client.publish('/orvale/mesh/to/' + peer, {from: name});
    };
    const push = (channel, data) => {
      print({event: 'received', channel, data});
      if (data && data.start) publishAll(data).catch(fail);
      if (data && data.stop) stop();
    };
    for (const channel of channels) await client.subscribe(channel, push);
    print({event: 'ready'});
    await stopped;
  },
};

// One session: the handshake, the scenario, `hold` and the disconnection; the transports used.
async function runSession(client, scenario, rest, name, hold) {
  await client.handshake();
  await scenarios[scenario](client, rest, name);
  await hold();
  await client.disconnect();
  return client.used;
}

// The URL of a local balancer over the hubs at `urls`.
function balance(urls) {
  const net = require('net');
  const hubs = urls.map((url) => new URL(url));
  const server = net.createServer((socket) => {
    socket.pause();
    socket.on('error', () => {});
    const attempt = (i) => {
      if (i === hubs.length) return socket.destroy();
      const hub = net.connect(Number(hubs[i].port), hubs[i].hostname);
      hub.once('error', () => attempt(i + 1));
      hub.once('connect', () => {
        hub.removeAllListeners('error').on('error', () => socket.destroy());
        hub.on('close', () => socket.destroy());
        socket.on('close', () => hub.destroy());
        socket.pipe(hub).pipe(socket);
      });
    };
    attempt(0);
  });
  server.unref();
  return new Promise((resolve) => server.listen(0, '127.0.0.1', () =>
    resolve('http://127.0.0.1:' + server.address().port + hubs[0].pathname)));
}

// The page at http://127.0.0.1:`port`: it loads the `peer`'s browser build from node_modules.
async function servePage(port, peer) {
  const fs = require('fs');
  const path = require('path');
  const modules = path.join(__dirname, 'node_modules');
  const loader = {
    faye: '<script src="/faye/client/faye-browser.js"></script>',
    cometd: '<script type="module">import {CometD} from "/cometd/cometd.js"; window.CometD = CometD;</script>',
  }[peer];
  const pages = require('http').createServer((request, response) => {
    const name = request.url.split('?')[0];
    const file = path.join(modules, path.normalize(name));
    if (name !== '/' && (!file.startsWith(modules + path.sep) || !fs.existsSync(file)))
      return response.writeHead(404).end();
    response.writeHead(200, {'Content-Type': name === '/' ? 'text/html' : 'text/javascript'});
    if (name === '/') response.end(`<!doctype html><title>${peer}</title>${loader}`);
    else fs.createReadStream(file).pipe(response);
  });
  pages.unref();
  await new Promise((resolve, reject) => pages.listen(Number(port), '127.0.0.1', resolve).on('error', reject));
}

// The status page at `url` in a second tab, once it shows figures: saved to `file`, its counts
// printed; returns when SIGUSR2 comes.
async function photograph(browser, url, file) {
  const resume = new Promise((resolve) => process.once('SIGUSR2', resolve));
  const tab = await browser.newPage();
  await tab.goto(url);
  const ids = ['sessions', 'ws', 'lp', 'connections', 'subscriptions', 'channels', 'dropped', 'refused'];
  await tab.waitForFunction((ids) => ids.every((id) => /^[0-9,]+$/.test(
      document.getElementById(id).textContent)), {polling: 50}, ids);
  await tab.screenshot({path: file});
  const shown = await tab.evaluate((ids) => Object.fromEntries(ids.map((id) =>
      [id, Number(document.getElementById(id).textContent.replace(/,/g, ''))])), ids);
  print({event: 'status', ...shown});
  await resume;
}

// runSession in a page of headless Chromium, with the functions above loaded into it.
async function inBrowser(pagePort, screenshot, peer, client, run) {
  await servePage(pagePort, peer);
  // Chromium's sandbox cannot start as root, which CI runs as: only then is it turned off.
  const browser = await require('puppeteer-core').launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    args: process.getuid() === 0 ? ['--no-sandbox'] : [],
    acceptInsecureCerts: true,  // the test's own certificate authority
  });
  try {
    const page = await browser.newPage();
    page.on('pageerror', (e) => print({event: 'page-error', message: String(e)}));
    await page.exposeFunction('printLine', print);
    await page.exposeFunction('hold', async () =>
      screenshot && photograph(browser, new URL('/status', client[0]).href, screenshot));
    await page.goto(`http://127.0.0.1:${pagePort}/`);
    await page.waitForFunction('window.Faye || window.CometD', {polling: 50});
    await page.addScriptTag({content: [fayeClient, cometdClient, inbox, runSession].join('\n') +
      `var scenarios = {${Object.values(scenarios).join(',\n')}};\n` +
      'var print = printLine, fail = (message) => { throw new Error(message); };'});
    return await page.evaluate((peer, client, run) => runSession(peer === 'faye'
        ? fayeClient(Faye, ...client) : cometdClient(CometD, ...client), ...run, hold)
        .catch((e) => {  // Faye fails with plain objects, which would reach Node as noise
          throw new Error(e && e.message ? e.message : JSON.stringify(e));
        }), peer, client, run);
  } finally {
    await browser.close().catch(() => {});
  }
}

// `peer`'s Node client.
async function nodeClient(peer, ...args) {
  if (peer === 'faye') return fayeClient(faye, ...args);
  (await import('cometd-nodejs-client')).adapt();
  return cometdClient((await import('cometd')).CometD, ...args);
}

(async () => {
  const option = {type: 'string'};
  const {values: options, positionals} = require('util').parseArgs({allowPositionals: true,
    options: {'only': option, 'api-key': option, 'browser': option, 'screenshot': option}});
  const [peer, urls, scenario, ...rest] = positionals;
  if (!['faye', 'cometd'].includes(peer) || !urls || !Object.keys(scenarios).includes(scenario))
    fail('usage: bayeux_client.js faye|cometd URL exchange|talk|mesh ...');
  const {browser, only} = options;
  setTimeout(() => fail('timed out'), scenario === 'mesh' || browser ? 40000 : 15000).unref();
  try {
    const client = [urls.includes(',') ? await balance(urls.split(',')) : urls, only, options['api-key']];
    const run = [scenario, rest, only ? peer + ' ' + only : peer];
    const used = browser ? await inBrowser(browser, options.screenshot, peer, client, run)
                         : await runSession(await nodeClient(peer, ...client), ...run, async () => {});
    print({result: 'ok', handshakeTransport: used.handshake, transport: used.last});
    process.exit(0);
  } catch (e) {
    fail(e && e.message ? e.message : e);
  }
})();
