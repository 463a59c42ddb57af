// Node's fetch as a client that streams what it sends. Usage: node stream_bodies.js ROUNDS URL...
//
// Each round goes through the URLs: a body in chunks, of many sizes and in many pieces, to URL/digest, and a request
// without a body to URL/small. Prints "ok" when every response belonged to its request.
"use strict";

const crypto = require("crypto");

const [rounds, ...urls] = process.argv.slice(2);
const small = "hello, world\n";

// A body of `count` pieces of `size` bytes. Each piece is made when it is asked for.
function* pieces(count, size) {
  for (let i = 0; i < count; i++) yield crypto.randomBytes(size);
}

async function post(url, count, size) {
  const hash = crypto.createHash("sha256");
  const source = pieces(count, size);
  const body = new ReadableStream({
    async pull(controller) {
      const { done, value } = source.next();
      if (done) return controller.close();
      hash.update(value);
      await new Promise(setImmediate);
      controller.enqueue(value);
    },
  });
  const response = await fetch(url + "/digest", { method: "POST", body, duplex: "half" });
  const text = await response.text();
  const expected = `${count * size} ${hash.digest("hex")}`;
  if (text !== expected) throw new Error(`${url}: ${text} instead of ${expected}`);
}

async function get(url) {
  const text = await (await fetch(url + "/small")).text();
  if (text !== small) throw new Error(`${url}: ${text}`);
}

(async () => {
  for (let round = 0; round < Number(rounds); round++) {
    for (const url of urls) {
      await post(url, round % 7, 1 + 997 * round);
      await get(url);
    }
  }
  console.log("ok");
})();
