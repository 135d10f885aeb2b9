'use strict';
// Each message names a file, whose size is printed: node worker.js APPLICATION. A file that is not there yet is tried
// again, and given up after four tries; a name that cannot be a file's is given up at once.
const fs = require('node:fs');
const path = require('node:path');
const qel = require('./qel-client');

const MOST_TRIES = 4;

async function work(message) {
  const file = message.body.toString();
  if (!path.isAbsolute(file)) {
    throw new qel.Dead('the message is no absolute path');
  }
  if (!fs.existsSync(file)) {
    console.log('missing', file);
    return message.tries + 1 < MOST_TRIES
      ? new qel.Retry('no such file', 1000) : new qel.Dead('no such file after several tries');
  }
  // Throws when it is gone meanwhile or cannot be read, which means: try again later.
  const { size } = await fs.promises.stat(file);
  console.log('size', file, size);
  return undefined;
}

async function main() {
  const client = new qel.Client(process.argv[2]);
  client.stopOnSignals();
  await client.run(work);
  client.close();
}

main();
