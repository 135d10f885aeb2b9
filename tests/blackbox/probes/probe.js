'use strict';
// Says what the client module tells an application: node probe.js APPLICATION WINDOW
//
// Each line of its input is a command: `request`, or `publish BYTES EXCHANGE ROUTING-KEY [CUSTOMER]`, whose outcome it
// prints.
const readline = require('node:readline');
const qel = require('qel-client');

async function obey(client, [command, size, exchange, routingKey, customer]) {
  try {
    if (command === 'request') {
      console.log('in force', (await client.requestConfiguration()).state);
      return;
    }
    await client.publish(exchange.replace(/^-$/, ''), routingKey, Buffer.alloc(Number(size)),
      { headers: customer ? { customer } : {} });
    console.log('published', size);
  } catch (error) {
    console.log('error', error.name, error.message);
  }
}

async function main() {
  const client = new qel.Client(process.argv[2], { window: Number(process.argv[3]) });
  client.on('welcome', ({ application, window, orderingKey, configuration, broker }) => {
    console.log('welcome', application, window, orderingKey, configuration.state, broker.state);
  });
  client.on('configuration', ({ state, topics }) => console.log('configuration', state, ...topics));
  client.on('broker', ({ state }) => console.log('broker', state));
  client.stopOnSignals();
  readline.createInterface({ input: process.stdin }).on('line', (line) => obey(client, line.split(' ')));
  try {
    await client.run(({ routingKey, headers, body }) => {
      console.log('message', routingKey, (headers.customer ?? '').toString(), body.length);
    });
  } catch (error) {
    console.log('error', error.name, error.message);
  }
  process.exit();
}

main();
