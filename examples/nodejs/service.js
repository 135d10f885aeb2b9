'use strict';
// Answers each request with its text in capitals: node service.js APPLICATION
const qel = require('./qel-client');

async function main() {
  const client = new qel.Client(process.argv[2]);
  client.stopOnSignals();
  await client.run(async (request) => {
    if (!request.replyTo) {
      throw new qel.Dead('the request does not say where the answer is to go');
    }
    // The request is done when the broker has the answer: killed in between, we answer it again.
    await client.reply(request, request.body.toString().toUpperCase());
  });
  client.close();
}

main();
