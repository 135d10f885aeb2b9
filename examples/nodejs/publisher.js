'use strict';
// Publishes each line of its input: node publisher.js APPLICATION EXCHANGE ROUTING-KEY. The application need not have
// attached.
const readline = require('node:readline');
const qel = require('./qel-client');

async function main() {
  const [application, exchange, routingKey] = process.argv.slice(2);
  const client = new qel.Client(application);
  for await (const line of readline.createInterface({ input: process.stdin })) {
    await client.publish(exchange, routingKey, line);
    console.log('published', line);
  }
  client.close();
}

main();
