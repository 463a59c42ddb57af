// The application of the tests in Express. Usage: node server.js PORT
"use strict";

const crypto = require("crypto");
const events = require("events");
const express = require("express");
const fs = require("fs");

const app = express();
app.enable("strict routing");
const next = new events.EventEmitter();

// The page's lines for HTTPS, if the test has put them here.
if (fs.existsSync("./https.js")) require("./https.js")(app);

app.get("/", (request, response) => response.send("This is Express.\n"));
app.get("/folder/", (request, response) => response.send("This is the folder.\n"));
app.get("/folder", (request, response) =>
  response.redirect(`${request.protocol}://${request.headers.host}/folder/`));
app.post("/upload", async (request, response) => {
  const hash = crypto.createHash("sha256");
  let length = 0;
  for await (const data of request) {
    hash.update(data);
    length += data.length;
  }
  response.send(`${length} ${hash.digest("hex")}`);
});
app.get("/events", async (request, response) => {
  response.set("Content-Type", "text/event-stream");
  response.write("data: first\n\n");
  await events.once(next, "next");
  response.end("data: second\n\n");
});
app.post("/next", (request, response) => {
  next.emit("next");
  response.send("");
});

app.listen(Number(process.argv[2]), "127.0.0.1");
