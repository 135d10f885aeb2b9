'use strict';
const net = require('node:net');

/** The process that does the work: hand over a body, and be called when its verdict has come. */
class Worker {
  constructor(socketPath) {
    this.socket = net.connect(socketPath);
    this.waiting = [];
    this.next = 0;
    this.corked = false;
    this.socket.on('data', (verdicts) => this.answer(verdicts.length));
    this.socket.on('error', (error) => { throw error; });
  }

  handOver(body, answered) {
    if (!this.corked) {
      this.corked = true;
      this.socket.cork();
      setImmediate(() => { this.corked = false; this.socket.uncork(); });
    }
    const length = Buffer.allocUnsafe(4);
    length.writeUInt32BE(body.length);
    this.socket.write(length);
    this.socket.write(body);
    this.waiting.push(answered);
  }

  answer(count) {
    for (let i = 0; i < count; i++) this.waiting[this.next++]();
    if (this.next > 4096) {
      this.waiting.splice(0, this.next);
      this.next = 0;
    }
  }
}

module.exports = { Worker };
