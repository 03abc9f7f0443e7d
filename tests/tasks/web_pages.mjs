// Pages for the web tasks, served on loopback by a small HTTP server of the
// task's own, which records every request it receives: what a form sent is
// checked there, outside Glimmerstrand.
import http from 'node:http';

const FORM = `<!doctype html>
<html lang="en"><head><meta charset="utf-8"><title>Order form</title></head><body>
<header><h1>Order a shirt</h1></header>
<nav aria-label="Site"><a href="next.html">Next page</a></nav>
<main><form action="received.html" method="get">
<p><label for="name">Name</label> <input id="name" name="name"></p>
<p><label for="size">Size</label> <select id="size" name="size"><option>Small</option><option>Medium</option>
<option>Large</option></select></p>
<p><label for="qty">Quantity</label> <input id="qty" name="qty" type="number" value="1"></p>
<p><input id="gift" name="gift" type="checkbox"><label for="gift">Gift wrap</label></p>
<button type="submit">Send order</button>
</form></main></body></html>`;

/** The price of item n on the long page. */
export const priceOf = (n) => n * 7;

// A thousand rows of two cells: about 4,000 accessible objects.
const LONG = `<!doctype html><html lang="en"><head><meta charset="utf-8"><title>Price list</title></head><body>
<h1>Price list</h1><table><caption>Prices</caption><tr><th>Item</th><th>Price</th></tr>
${Array.from({ length: 1000 }, (_, k) => `<tr><td>Item ${k + 1}</td><td>${priceOf(k + 1)}</td></tr>`).join('\n')}
</table></body></html>`;

const PAGES = {
  '/form.html': FORM,
  '/next.html': '<!doctype html><title>Next</title><h1>The next page</h1><p>Arrived.</p>',
  '/received.html': '<!doctype html><title>Received</title><h1>Order received</h1>',
  '/long.html': LONG,
};

/** Starts the server; resolves to { url(page), requests, close() }. */
export function servePages() {
  const requests = [];
  const server = http.createServer((request, response) => {
    requests.push(request.url);
    const page = PAGES[new URL(request.url, 'http://127.0.0.1').pathname];
    response.writeHead(page ? 200 : 404, { 'content-type': 'text/html; charset=utf-8' });
    response.end(page ?? 'not here');
  });
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      resolve({
        url: (page) => `http://127.0.0.1:${port}/${page}`,
        requests,
        // Browsers keep connections open for later requests: end them too.
        close: () =>
          new Promise((done) => {
            server.close(done);
            server.closeAllConnections();
          }),
      });
    });
  });
}

/** The browsers the web tasks drive, and how an agent reaches each one's address bar. */
export const BROWSERS = [
  { key: 'chromium', app: 'chromium', bar: '(a:TextField {name:"Address and search bar"})' },
  { key: 'firefox', app: 'firefox-esr', bar: '(a:ComboBox)' },
];
