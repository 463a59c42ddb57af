// Sends every message back, through Socket.IO. Usage: node server.js PORT
"use strict";

const http = require("http");
const { Server } = require("socket.io");

const server = http.createServer();
new Server(server).on("connection", (socket) => socket.on("ask", (data, answer) => answer(data)));
server.listen(Number(process.argv[2]), "127.0.0.1");
