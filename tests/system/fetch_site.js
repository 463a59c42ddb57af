// Node's fetch as a client. Usage: node fetch_site.js PARALLEL URL...; prints {URL: SHA-256 of its body}.
"use strict";

const crypto = require("crypto");

const [parallel, ...urls] = process.argv.slice(2);
const digests = {};

async function fetchSome() {
  for (let url; (url = urls.shift()); ) {
    const response = await fetch(url);
    if (response.status !== 200) throw new Error(`${url}: ${response.status}`);
    const body = Buffer.from(await response.arrayBuffer());
    digests[url] = crypto.createHash("sha256").update(body).digest("hex");
  }
}

const fetchers = Array.from({ length: Number(parallel) }, fetchSome);
Promise.all(fetchers).then(() => console.log(JSON.stringify(digests)));
