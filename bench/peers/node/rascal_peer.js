// A consumer on rascal: hands every message of the type "job" to the process at SOCKET and acknowledges it when that has
// answered; messages of another type are rejected. Runs until it is ended.
//
//   node rascal_peer.js URL QUEUE PREFETCH SOCKET
'use strict';
const { BrokerAsPromised, withDefaultConfig } = require('rascal');
const { Worker } = require('./worker');

async function main(url, queue, prefetch, socket) {
  const worker = new Worker(socket);
  const broker = await BrokerAsPromised.create(withDefaultConfig({
    vhosts: {
      '/': {
        connection: { url },
        queues: { [queue]: { assert: false, check: false } },
        subscriptions: { jobs: { queue, prefetch: Number(prefetch) } },
      },
    },
  }));
  broker.on('error', (error) => { throw error; });
  const subscription = await broker.subscribe('jobs');
  subscription.on('message', (message, content, ackOrNack) => {
    if (message.properties.type !== 'job') {
      ackOrNack(new Error('not for us'), { strategy: 'nack' });
      return;
    }
    worker.handOver(content, () => ackOrNack());
  });
  subscription.on('error', (error) => { throw error; });
}

main(...process.argv.slice(2));
