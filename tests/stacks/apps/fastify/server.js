// The application of the tests in Fastify. Usage: node server.js PORT
"use strict";

const crypto = require("crypto");
const events = require("events");
const { Readable } = require("stream");

const app = require("fastify")({ bodyLimit: 1 << 30 });
const next = new events.EventEmitter();

app.addContentTypeParser("application/octet-stream", (request, payload, done) => done(null, payload));
app.get("/", async () => "This is Fastify.\n");
app.get("/folder/", async () => "This is the folder.\n");
app.get("/folder", async (request, reply) => reply.redirect("/folder/"));
app.post("/upload", async (request) => {
  const hash = crypto.createHash("sha256");
  let length = 0;
  for await (const data of request.body) {
    hash.update(data);
    length += data.length;
  }
  return `${length} ${hash.digest("hex")}`;
});

async function* streamEvents() {
  yield "data: first\n\n";
  await events.once(next, "next");
  yield "data: second\n\n";
}

app.get("/events", (request, reply) => reply.type("text/event-stream").send(Readable.from(streamEvents())));
app.post("/next", async () => {
  next.emit("next");
  return "";
});

app.listen({ port: Number(process.argv[2]), host: "127.0.0.1" });
