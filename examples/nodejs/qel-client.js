'use strict';
// A thin client of qel-agent: an application's messages, verdicts and publications.
//
//     const client = new Client('web');
//     await client.run((message) => console.log(message.body.toString()));

const { randomUUID } = require('node:crypto');
const { EventEmitter, once } = require('node:events');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const grpc = require('@grpc/grpc-js');
const loader = require('@grpc/proto-loader');

const FILE = 'qel/apps/v1/applications.proto';
// Where you say that it is, or qel's sources when we are run from there, or where Debian's libqel-client-dev puts it.
const FOLDERS = [process.env.QEL_PROTO ?? '', path.join(__dirname, '../../proto'), '/usr/share/qel/proto'];
const PERSISTENT = 2;
const LONGEST_REASON = 1024;
const LONGEST_DELAY_MS = 900000;
const REFUSALS = [grpc.status.INVALID_ARGUMENT, grpc.status.RESOURCE_EXHAUSTED, grpc.status.PERMISSION_DENIED,
  grpc.status.UNIMPLEMENTED];

const { Applications } = grpc.loadPackageDefinition(loader.loadSync(FILE, {
  includeDirs: FOLDERS.filter((folder) => fs.existsSync(path.join(folder, FILE))),
  longs: String, enums: String, defaults: true, oneofs: true,
})).qel.apps.v1;

/** Returned or thrown by a handler: the message comes again, after so many milliseconds if that is given. */
class Retry extends Error {
  constructor(why = '', delayMs = undefined) {
    super(why);
    this.delayMs = delayMs;
  }
}

/** Returned or thrown by a handler: the message can never be worked on and goes to the dead-letter queue. */
class Dead extends Error {}

/** The agent refuses the application for good. */
class AttachError extends Error {}

/** A message was not published. */
class PublishError extends Error {}

/** No queue takes the routing key. */
class NoRoute extends PublishError {}

/** The message itself is wrong: do not repeat it. */
class Refused extends PublishError {}

/** No confirm came in time. Publish it again with the same messageId: the broker may have it. */
class Unconfirmed extends PublishError {}

/**
 * An application's side of its agent. run() and publish() come back by themselves when the agent has been away.
 *
 * Events: 'log' with a line on each change and failure (without a listener they go to standard error), 'configuration'
 * and 'broker' with what is so at each attach and each change.
 */
class Client extends EventEmitter {
  /**
   * Connects to nothing yet. Options:
   *   socket          else apps/NAME.sock below the environment's QEL_RUNTIME_DIRECTORY, else below /run/qel
   *   instance        tells instances apart in the agent's log
   *   window          how many messages may be without a verdict at once; 0: what the agent is configured with
   *   concurrency     how many messages are worked on at once (1); with more their order is not kept
   *   retryDelayMs    until a message comes again that the handler threw at (1000); doubles with every try
   *   stopPatienceMs  in which run() finishes, after stop(), what it was given (10000)
   */
  constructor(application, options = {}) {
    super();
    const directory = process.env.QEL_RUNTIME_DIRECTORY ?? '/run/qel';
    this.options = { instance: `${os.hostname().slice(0, 32)}/${process.pid}`, window: 0, concurrency: 1,
      retryDelayMs: 1000, stopPatienceMs: 10000, socket: `${directory}/apps/${application}.sock`, ...options };
    this.stopping = false;
    this.wake = new EventEmitter();
    // A connection of its own, which looks for the agent often: it is on this host.
    this.stub = new Applications(`unix:${this.options.socket}`, grpc.credentials.createInsecure(), {
      'grpc.use_local_subchannel_pool': 1, 'grpc.max_receive_message_length': -1,
      'grpc.initial_reconnect_backoff_ms': 100, 'grpc.min_reconnect_backoff_ms': 100,
      'grpc.max_reconnect_backoff_ms': 1000,
    });
  }

  close() {
    this.stub.close();
  }

  /**
   * Gives each message to the handler until stop(). The handler may be async. It returns nothing, which means done, or
   * a Retry or Dead; whatever it throws but Dead means: again later.
   */
  async run(handler) {
    const pauses = new BackOff(100, 5000);
    while (!this.stopping) {
      const began = Date.now();
      const stream = new Stream(this, handler);
      await stream.finished;
      if (this.stopping) {
        break;
      }
      if (!stream.welcomed && [grpc.status.INVALID_ARGUMENT, grpc.status.UNIMPLEMENTED].includes(stream.status.code)) {
        throw new AttachError(stream.status.details);
      }
      // An agent that takes us and ends us at once must not be asked all the time.
      if (Date.now() - began > pauses.longest) {
        pauses.reset();
      }
      const pause = pauses.next();
      const why = stream.status.code === grpc.status.OK ? 'the agent has ended the stream' : stream.status.details;
      this.log(`${stream.welcomed ? 'detached' : 'not attached'}: ${why}; trying again in ${pause} ms`);
      await this.sleep(pause);
    }
  }

  /** Detaches for good: nothing more is given to us, what we have is finished, then run() returns. */
  stop() {
    this.stopping = true;
    this.wake.emit('stop');
  }

  /** Lets SIGINT and SIGTERM stop the client; a second signal ends the process. */
  stopOnSignals() {
    for (const signal of ['SIGINT', 'SIGTERM']) {
      process.once(signal, () => this.stop());
    }
  }

  /**
   * Publishes and waits until the broker has taken responsibility. While the agent is away or has too much waiting it
   * tries again; a repetition has the same messageId. Properties are AMQP's, for example { correlationId: '7' }.
   * Throws a PublishError.
   */
  async publish(exchange, routingKey, body, { noRouteIsError = true, timeoutMs = 30000, ...properties } = {}) {
    const bytes = Object.entries({ messageId: randomUUID(), deliveryMode: PERSISTENT, ...properties })
      .map(([name, value]) => [name, typeof value === 'string' ? Buffer.from(value) : value]);
    const request = { exchange, routingKey: Buffer.from(routingKey), body: Buffer.from(body), noRouteIsError,
      properties: Object.fromEntries(bytes) };
    const deadline = Date.now() + timeoutMs;
    const pauses = new BackOff(50, 1000);
    for (;;) {
      const error = await this.attempt(request, deadline);
      if (!error) {
        return;
      }
      if (error.code === grpc.status.NOT_FOUND) {
        throw new NoRoute(error.details);
      }
      if (REFUSALS.includes(error.code)) {
        throw new Refused(error.details);
      }
      const pause = pauses.next();
      if (Date.now() + pause >= deadline) {
        throw new Unconfirmed(error.details);
      }
      await new Promise((resolve) => { setTimeout(resolve, pause); });
    }
  }

  /** Publishes the answer to a request; it is no error when the requester is gone. */
  async reply(request, body) {
    await this.publish('', request.replyTo, body,
      { noRouteIsError: false, correlationId: request.properties.correlationId });
  }

  attempt(request, deadline) {
    return new Promise((resolve) => { this.stub.publish(request, { deadline }, resolve); });
  }

  /** Waits so long, or until we are stopped. */
  async sleep(milliseconds) {
    const timer = new AbortController();
    const over = setTimeout(() => timer.abort(), milliseconds);
    await once(this.wake, 'stop', { signal: timer.signal }).catch(() => {});
    clearTimeout(over);
  }

  log(line) {
    if (!this.emit('log', line)) {
      console.error(line);
    }
  }
}

/** One attachment from start to end. */
class Stream {
  constructor(client, handler) {
    this.client = client;
    this.handler = handler;
    this.welcomed = false;
    this.status = null;
    this.waiting = [];
    this.verdicts = [];
    this.atWork = 0;
    this.leaving = false;
    this.left = false;
    this.onStop = () => this.detach();
    client.wake.once('stop', this.onStop);
    this.finished = new Promise((resolve) => { this.finish = resolve; });
    this.call = client.stub.attach();
    // The status says the same.
    this.call.on('error', () => {});
    this.call.on('data', (response) => this.take(response));
    this.call.on('status', (status) => this.end(status));
    this.call.write({ hello: { instance: client.options.instance, window: client.options.window } });
  }

  take(response) {
    const { welcome, deliveries } = response;
    this.welcomed = true;
    for (const kind of ['configuration', 'broker']) {
      const value = (welcome ?? response)[kind];
      if (value) {
        this.client.emit(kind, value);
      }
    }
    this.waiting.push(...(deliveries ? deliveries.deliveries : []));
    this.work();
  }

  work() {
    while (this.waiting.length > 0 && this.atWork < this.client.options.concurrency && !this.leaving && !this.status) {
      this.atWork += 1;
      this.decide(this.waiting.shift()).then((verdict) => {
        this.atWork -= 1;
        this.answer(verdict);
        this.work();
      });
    }
    if (this.atWork === 0) {
      this.rest();
    }
  }

  /** Nobody is at work: what was to wait for that goes on. */
  rest() {
    if (this.status) {
      this.finish();
    } else if (this.leaving && !this.left) {
      this.left = true;
      this.flush();
      this.call.end();
    }
  }

  async decide(delivery) {
    const message = new Message(delivery);
    let answer;
    try {
      answer = await this.handler(message);
    } catch (error) {
      answer = error instanceof Error ? error : new Error(String(error));
      if (!(answer instanceof Dead)) {
        this.client.log(`try ${message.tries + 1} of a message with routing key ${message.routingKey} failed: ${answer}`);
      }
    }
    return verdictFor(delivery.deliveryId, message, answer, this.client.options.retryDelayMs);
  }

  /** Sends a verdict together with those that are given in the same turn. */
  answer(verdict) {
    this.verdicts.push(verdict);
    if (this.verdicts.length === 1) {
      setImmediate(() => this.flush());
    }
  }

  flush() {
    if (this.verdicts.length > 0 && !this.status) {
      this.call.write({ verdicts: { verdicts: this.verdicts } });
    }
    this.verdicts = [];
  }

  detach() {
    this.call.write({ detach: {} });
    this.patience = setTimeout(() => {
      this.leaving = true;
      this.work();
    }, this.client.options.stopPatienceMs);
  }

  end(status) {
    clearTimeout(this.patience);
    this.client.wake.removeListener('stop', this.onStop);
    this.status = status;
    this.work();
  }
}

/** A message that the application is given. */
class Message {
  constructor(delivery) {
    this.exchange = delivery.exchange;
    this.routingKey = delivery.routingKey.toString();
    this.queue = delivery.queue.toString();
    this.body = delivery.body;
    /** As in the .proto file; texts are Buffers. */
    this.properties = delivery.properties;
    this.redelivered = delivery.redelivered;
    this.tries = delivery.tries;
    this.priority = delivery.priority;
    this.idempotencyKey = delivery.idempotencyKey;
  }

  get replyTo() { return this.properties.replyTo.toString(); }

  get messageId() { return this.properties.messageId.toString(); }
}

/** Pauses at random between nothing and a limit that doubles up to the longest. */
class BackOff {
  constructor(first, longest) {
    this.first = first;
    this.limit = first;
    this.longest = longest;
  }

  next() {
    const pause = Math.round(Math.random() * this.limit);
    this.limit = Math.min(this.limit * 2, this.longest);
    return pause;
  }

  reset() {
    this.limit = this.first;
  }
}

function verdictFor(deliveryId, message, answer, retryDelayMs) {
  if (answer instanceof Dead) {
    return { deliveryId, kind: 'DEAD', reason: utf8Prefix(answer.message, LONGEST_REASON) };
  }
  if (answer instanceof Error) {
    const delay = answer.delayMs ?? Math.min(retryDelayMs * 2 ** Math.min(message.tries, 16), 60000);
    return { deliveryId, kind: 'RETRY', retryDelayMs: Math.min(Math.max(0, Math.round(delay)), LONGEST_DELAY_MS) };
  }
  return { deliveryId, kind: 'DONE' };
}

/** As much of a text as fits into so many bytes. */
function utf8Prefix(text, most) {
  return new TextDecoder().decode(Buffer.from(text).subarray(0, most), { stream: true });
}

module.exports = { Client, Message, Retry, Dead, AttachError, PublishError, NoRoute, Refused, Unconfirmed };
