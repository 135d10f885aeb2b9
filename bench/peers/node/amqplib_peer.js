// A consumer on amqplib: hands every message of the type "job" to the process at SOCKET and acknowledges it when that has
// answered; messages of another type are rejected. Runs until it is ended.
//
//   node amqplib_peer.js URL QUEUE PREFETCH SOCKET
'use strict';
const amqplib = require('amqplib');
const { Worker } = require('./worker');

async function main(url, queue, prefetch, socket) {
  const worker = new Worker(socket);
  const connection = await amqplib.connect(url);
  const channel = await connection.createChannel();
  await channel.prefetch(Number(prefetch));
  await channel.consume(queue, (message) => {
    if (message.properties.type !== 'job') {
      channel.reject(message, false);
      return;
    }
    worker.handOver(message.content, () => channel.ack(message));
  });
}

main(...process.argv.slice(2));
