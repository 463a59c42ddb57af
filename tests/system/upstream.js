// The streaming upstream. Usage: node upstream.js SITE BLOCK PORT; prints the port that it listens on.
//
//   /connections   the number of connections so far, in the header x-connections
//   /small         a response of 13 bytes, in one piece
//   /two           the same in two pieces, the head first
//   /closing       the same, and then closes the connection
//   /drip/N        N pieces "piece I\n", chunked, one every few milliseconds
//   /repeat/N      N bytes: the file BLOCK, repeated
//   /echo          sends an upload back while it comes in
//   /digest        reads an upload and responds with its length and SHA-256
//   /NAME          a file of SITE, chunked
"use strict";

const crypto = require("crypto");
const fs = require("fs");
const http = require("http");
const path = require("path");
const { pipeline, Readable } = require("stream");
const { promisify } = require("util");

const sleep = promisify(setTimeout);

const [site, blockPath, port] = process.argv.slice(2);
const block = fs.readFileSync(blockPath);
let connections = 0;

// A peer that leaves in the middle ends its pipeline with an error. That is part of the tests.
const ignore = () => {};

function* repeatedBlock(length) {
  for (; length > 0; length -= block.length) yield block.subarray(0, length);
}

async function* drip(count) {
  for (let i = 0; i < count; i++) {
    yield `piece ${i}\n`;
    await sleep(5);
  }
}

const small = "hello, world\n";

const services = {
  connections: (request, response) => response.writeHead(204, { "x-connections": connections }).end(),
  small: (request, response) => response.writeHead(200, { "content-length": small.length }).end(small),
  closing: (request, response) =>
    response.writeHead(200, { "content-length": small.length, connection: "close" }).end(small),
  two: (request, response) => {
    response.writeHead(200, { "content-length": small.length }).flushHeaders();
    setImmediate(() => response.end(small));
  },
  drip: (request, response, count) => pipeline(Readable.from(drip(Number(count))), response, ignore),
  repeat: (request, response, length) => {
    response.writeHead(200, { "content-length": length });
    pipeline(Readable.from(repeatedBlock(Number(length))), response, ignore);
  },
  echo: (request, response) => {
    response.writeHead(200, { "content-length": request.headers["content-length"] });
    pipeline(request, response, ignore);
  },
  digest: (request, response) => {
    const hash = crypto.createHash("sha256");
    let length = 0;
    request.on("data", (data) => {
      hash.update(data);
      length += data.length;
    });
    request.on("end", () => response.end(`${length} ${hash.digest("hex")}`));
  },
};

const server = http.createServer({ noDelay: true }, (request, response) => {
  const [service, argument] = request.url.slice(1).split("/");
  if (services[service]) return services[service](request, response, argument);
  const file = fs.createReadStream(path.join(site, request.url));
  file.on("open", () => pipeline(file, response, ignore));
  file.on("error", () => response.headersSent || response.writeHead(404).end());
});

server.on("connection", () => connections++);
server.keepAliveTimeout = 0;
server.requestTimeout = 0;
server.listen(Number(port), "127.0.0.1", 512, () => console.log(server.address().port));
