// Asks the server 50 times, with longer and longer messages. Usage: node client.js URL [TRANSPORT]; prints the transport
// by which the answers came, or what went wrong.
"use strict";

const { io } = require("socket.io-client");

const [url, transport] = process.argv.slice(2);
const socket = io(url, { reconnection: false, ...(transport ? { transports: [transport] } : {}) });

socket.on("connect", async () => {
  for (let i = 0; i < 50; i++) {
    const data = String(i).repeat(1000 * i);
    if ((await socket.emitWithAck("ask", data)) !== data) throw new Error(`answer ${i} is another one`);
  }
  console.log(socket.io.engine.transport.name);
  socket.close();
});
socket.on("connect_error", (error) => {
  console.log(error.message);
  process.exitCode = 1;
});
