'use strict';
// Prints each message of an application: node consumer.js APPLICATION
const qel = require('./qel-client');

async function main() {
  const client = new qel.Client(process.argv[2]);
  client.stopOnSignals();
  await client.run((message) => console.log(message.routingKey, message.body.toString()));
  client.close();
}

main();
