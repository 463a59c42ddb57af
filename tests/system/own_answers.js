// An upstream whose every response shows which request it belongs to. Usage: node own_answers.js NAME; prints the port.
// A response is one line: NAME, the method, the path, and the length and the SHA-256 of the body.
"use strict";

const crypto = require("crypto");
const http = require("http");

const server = http.createServer({ noDelay: true }, (request, response) => {
  const hash = crypto.createHash("sha256");
  let length = 0;
  request.on("data", (data) => {
    hash.update(data);
    length += data.length;
  });
  request.on("end", () =>
    response.end([process.argv[2], request.method, request.url, length, hash.digest("hex")].join(" ")));
});
server.keepAliveTimeout = 0;
server.listen(0, "127.0.0.1", () => console.log(server.address().port));
