// Tells where Node's HTTP parser finds the end of a request. Reads requests from standard input, one a line, in
// hexadecimal. Prints for each the number of its bytes, "open" if it has not ended, or "refused".
"use strict";

const http = require("http");
const readline = require("readline");
const { Duplex } = require("stream");

const server = http.createServer();

// Feeds one byte at a time, to know which byte completes the request.
function endOf(bytes) {
  let request = null;
  let refused = false;
  server.removeAllListeners();
  server.on("request", (r) => (request = r));
  server.on("clientError", () => (refused = true));
  for (const event of ["upgrade", "connect", "checkContinue", "checkExpectation"])
    server.on(event, () => (refused = true));
  const socket = new Duplex({ read() {}, write(chunk, encoding, done) { done(); } });
  http._connectionListener.call(server, socket);
  for (let i = 0; i < bytes.length; i++) {
    socket.emit("data", bytes.subarray(i, i + 1));
    if (refused) return "refused";
    if (request && request.complete) return i + 1;
  }
  return "open";
}

readline.createInterface({ input: process.stdin }).on("line", (line) => console.log(endOf(Buffer.from(line, "hex"))));
