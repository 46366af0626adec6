'use strict';
// Faye's or CometD's browser client, in headless Chromium, talking with a Bayeux server from a
// page of another origin.
//
//   node browser_client.js faye|cometd websocket|long-polling URL PAGE_PORT LISTEN PUBLISH
//        [--screenshot URL FILE]
//
// Serves a page and the client's browser build at http://127.0.0.1:PAGE_PORT, opens it in
// Chromium (CHROMIUM, default /usr/bin/chromium) and there subscribes to LISTEN, publishes
// {"from":"PEER MODE"} on PUBLISH, waits for one message on LISTEN and disconnects.
// long-polling keeps the client off WebSockets and off callback-polling, so that its requests
// go by CORS. With --screenshot, while the session is live, a second tab opens URL (the hub's
// status page), waits until it shows figures, saves a PNG of it to FILE, prints
// {"event":"status",...} with the counts the page shows and keeps the session until SIGUSR2.
// Stdout lines are JSON: {"event":"received",...} and last {"result":"ok","transport":...} or
// {"result":"error","message":...} (exit status 1). A run is bounded by 30 seconds.

const fs = require('fs');
const http = require('http');
const path = require('path');
const puppeteer = require('puppeteer-core');
const {print, fail} = require('./bayeux_client.js');

const [peer, mode, url, pagePort, listen, publish, ...rest] = process.argv.slice(2);
if (!['faye', 'cometd'].includes(peer) || !['websocket', 'long-polling'].includes(mode) || !publish)
  fail('usage: browser_client.js faye|cometd websocket|long-polling URL PAGE_PORT LISTEN PUBLISH');
const screenshot = rest[0] === '--screenshot' ? {url: rest[1], file: rest[2]} : null;

const modules = path.join(__dirname, 'node_modules');
const loader = {
  faye: '<script src="/faye/client/faye-browser.js"></script>',
  cometd: '<script type="module">import {CometD} from "/cometd/cometd.js"; window.CometD = CometD;</script>',
}[peer];
const page = `<!doctype html><title>${peer}</title>${loader}`;
function serve(request, response) {
  const name = request.url.split('?')[0];
  const file = path.join(modules, path.normalize(name));
  if (name !== '/' && (!file.startsWith(modules + path.sep) || !fs.existsSync(file))) {
    response.writeHead(404);
    return response.end();
  }
  response.writeHead(200, {'Content-Type': name === '/' ? 'text/html' : 'text/javascript'});
  if (name === '/') response.end(page);
  else fs.createReadStream(file).pipe(response);
}

// Runs in the page: the exchange through the browser client, as a promise of its outcome.
async function exchange({peer, mode, url, listen, publish}) {
  try {
    return await exchangeIn({peer, mode, url, listen, publish});
  } catch (e) {  // Faye fails with plain objects, which would reach Node as noise
    throw new Error(e && e.message ? e.message : JSON.stringify(e));
  }
  async function exchangeIn({peer, mode, url, listen, publish}) {
    const timeout = (ms, what) => new Promise((_, reject) =>
      setTimeout(() => reject(new Error(what + ' within ' + ms + ' ms')), ms));
    let received, client, cometd;
    const message = new Promise((resolve) => { received = resolve; });
    if (peer === 'faye') {
      client = new window.Faye.Client(url, {timeout: 30, retry: 1});
      if (mode === 'long-polling') client.disable('websocket');
      client.disable('eventsource');
      await client.subscribe(listen, (data) => received({channel: listen, data}));
    } else {
      await new Promise((resolve) => setTimeout(resolve, 0));  // the module script runs first
      cometd = new window.CometD();
      cometd.configure({url, logLevel: 'warn'});
      cometd.unregisterTransport('callback-polling');
      if (mode === 'long-polling') cometd.unregisterTransport('websocket');
      const reply = await new Promise((resolve) => cometd.handshake(resolve));
      if (!reply.successful) throw new Error('handshake failed: ' + JSON.stringify(reply));
      await new Promise((resolve) => cometd.subscribe(listen, (m) => received(m), resolve));
    }
    const from = {from: peer + ' ' + mode};
    if (client) await client.publish(publish, from);
    else cometd.publish(publish, from);
    const got = await Promise.race([message, timeout(10000, 'no message')]);
    await new Promise((resolve) => window.released = resolve);  // after the optional screenshot
    const transport = client ? client._dispatcher.connectionType : cometd.getTransport().type;
    if (client) client.disconnect();
    else await new Promise((resolve) => cometd.disconnect(resolve));
    return {channel: got.channel, data: got.data, transport};
  }
}

(async () => {
  setTimeout(() => fail('timed out'), 30000).unref();
  let browser;
  const pages = http.createServer(serve);
  try {
    await new Promise((resolve, reject) => pages.listen(Number(pagePort), '127.0.0.1', resolve).on('error', reject));
    // Chromium's sandbox cannot start as root, which CI runs as: only then is it turned off.
    const args = process.getuid && process.getuid() === 0 ? ['--no-sandbox'] : [];
    browser = await puppeteer.launch({
      executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
      headless: true,
      args,
      acceptInsecureCerts: true,  // the test's own certificate authority
    });
    const page = await browser.newPage();
    page.on('pageerror', (e) => print({event: 'page-error', message: String(e)}));
    await page.goto(`http://127.0.0.1:${pagePort}/`);
    const outcome = page.evaluate(exchange, {peer, mode, url, listen, publish});
    outcome.catch(() => {});  // awaited below
    await Promise.race([page.waitForFunction('window.released', {polling: 50}), outcome]);
    if (screenshot) {
      const resume = new Promise((resolve) => process.once('SIGUSR2', resolve));
      const tab = await browser.newPage();
      await tab.goto(screenshot.url);
      const ids = ['sessions', 'ws', 'lp', 'connections', 'subscriptions', 'channels', 'dropped', 'refused'];
      await tab.waitForFunction((ids) => ids.every((id) => /^[0-9,]+$/.test(
          document.getElementById(id).textContent)), {polling: 50}, ids);
      await tab.screenshot({path: screenshot.file});
      const shown = await tab.evaluate((ids) => Object.fromEntries(ids.map((id) =>
          [id, Number(document.getElementById(id).textContent.replace(/,/g, ''))])), ids);
      print({event: 'status', ...shown});
      await resume;
    }
    await page.evaluate(() => window.released());
    const result = await outcome;
    print({event: 'received', channel: result.channel, data: result.data});
    print({result: 'ok', transport: result.transport});
    await browser.close();
    process.exit(0);
  } catch (e) {
    if (browser) await browser.close().catch(() => {});
    fail(e && e.message ? e.message : e);
  }
})();
