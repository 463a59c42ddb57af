// Clients of the npm package ws. Prints what they got, as JSON.
//
//     websocket_client.js talk URL          one client sends one message of each kind
//     websocket_client.js room URL COUNT    COUNT clients send a message each, and each waits for all messages
"use strict";

const { createHash } = require("node:crypto");
const { once } = require("node:events");
const WebSocket = require("ws");

const open = async url => {
  const socket = new WebSocket(url);
  socket.got = [];
  socket.on("message", (data, isBinary) => socket.got.push(isBinary ? ["binary"] : data.toString()));
  await once(socket, "open");
  return socket;
};

const waitForMessages = async (socket, count) => {
  while (socket.got.length < count) await once(socket, "message");
};

const talk = async url => {
  const socket = await open(url);
  socket.send("text");
  socket.send(Buffer.from("binary"));
  socket.send("frag", { fin: false });
  socket.send("men", { fin: false });
  socket.send("ts", { fin: true });
  socket.send("x".repeat(125));
  await waitForMessages(socket, 4);
  socket.ping("are you there?");
  const [pong] = await once(socket, "pong");
  socket.close(1000);
  const [code] = await once(socket, "close");
  return { messages: socket.got, pong: pong.toString(), code };
};

const room = async (url, count) => {
  const sockets = await Promise.all(Array.from({ length: count }, () => open(url)));
  sockets.forEach((socket, number) => socket.send(`message ${number}`));
  await Promise.all(sockets.map(socket => waitForMessages(socket, count)));
  sockets.forEach(socket => socket.terminate());
  const digest = got => createHash("sha256").update(got.join("\n")).digest("hex");
  return { messages: sockets[0].got, digests: sockets.map(socket => digest(socket.got)) };
};

const [mode, url, count] = process.argv.slice(2);
const run = { talk, room }[mode];
run(url, Number(count)).then(result => console.log(JSON.stringify(result)));
