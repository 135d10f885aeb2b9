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
// What would be refused again.
const FINAL = [grpc.status.INVALID_ARGUMENT, grpc.status.NOT_FOUND, grpc.status.FAILED_PRECONDITION,
  grpc.status.RESOURCE_EXHAUSTED, grpc.status.PERMISSION_DENIED, grpc.status.UNIMPLEMENTED];
const PROPERTIES = ['type', 'replyTo', 'correlationId', 'appId', 'messageId', 'userId', 'contentType',
  'contentEncoding', 'expiration', 'deliveryMode', 'priority', 'timestamp', 'headers'];

const includeDirs = FOLDERS.filter((folder) => fs.existsSync(path.join(folder, FILE)));
if (includeDirs.length === 0) {
  throw new Error(`there is no ${FILE}: install libqel-client-dev, or say in QEL_PROTO in which folder it is`);
}
const { Applications } = grpc.loadPackageDefinition(loader.loadSync(FILE, {
  includeDirs,
  longs: String, enums: String, defaults: true, oneofs: true,
})).qel.apps.v1;

/** An Error whose texts begin with the name of its class. */
class QelError extends Error {
  get name() { return this.constructor.name; }
}

/** Returned or thrown by a handler: the message comes again, after so many milliseconds if that is given. */
class Retry extends QelError {
  constructor(why = '', delayMs = undefined) {
    super(why);
    this.delayMs = delayMs;
  }
}

/** Returned or thrown by a handler: the message can never be worked on and goes to the dead-letter queue. */
class Dead extends QelError {}

/** The agent refuses the application for good. */
class AttachError extends QelError {}

/** A message was not published. */
class PublishError extends QelError {}

/** No queue takes the routing key. */
class NoRoute extends PublishError {}

/** The message itself is wrong: do not repeat it. */
class Refused extends PublishError {}

/** No confirm came in time. Publish it again with the same messageId: the broker may have it. */
class Unconfirmed extends PublishError {}

/** The management plane was not asked for a configuration. */
class ConfigurationError extends QelError {}

/** The management plane is not there. Ask later; as long as there is no configuration the agent asks, too. */
class NoPlane extends ConfigurationError {}

/** The operator has to mend the agent's configuration. */
class NotSetUp extends ConfigurationError {}

/** Asked less than a second ago: the answer to that is on its way. */
class TooSoon extends ConfigurationError {}

/** The agent or the broker was away until the timeout: the management plane may have the request or not. */
class NotConfirmed extends ConfigurationError {}

/**
 * An application's side of its agent. run(), publish() and requestConfiguration() come back by themselves when the
 * agent has been away.
 *
 * Events:
 *   'log'            a line on each change and failure; without a listener they go to standard error
 *   'welcome'        at each attach { application, agentVersion, window, orderingKey, configuration, broker }
 *   'configuration'  at each attach and change { state, error, topics, queues, incomplete }; the state is 'MISSING',
 *                    'APPLYING', 'APPLIED' or 'FAILED'
 *   'broker'         at each attach and change the agent's connection to the broker, { state }: 'DISCONNECTED',
 *                    'CONNECTED' or 'BLOCKED'
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
   * tries again; a repetition has the same messageId. Properties are AMQP's, for example { correlationId: '7' };
   * headers are an object of texts, Buffers, numbers, bigints and booleans. Throws a PublishError.
   */
  async publish(exchange, routingKey, body, { noRouteIsError = true, timeoutMs = 30000, ...properties } = {}) {
    const request = { exchange, routingKey: Buffer.from(routingKey), body: Buffer.from(body), noRouteIsError,
      properties: propertiesFrom({ messageId: randomUUID(), deliveryMode: PERSISTENT, ...properties }) };
    try {
      await this.call('Publish', request, timeoutMs);
    } catch (error) {
      throw publishError(error);
    }
  }

  /**
   * Asks the management plane for our configuration, for an application that knows that it wants another one; the
   * agent asks by itself as long as there is none. What comes of it is the event 'configuration'. Returns what was in
   * force when the request went out. Throws a ConfigurationError.
   */
  async requestConfiguration({ timeoutMs = 30000 } = {}) {
    try {
      return (await this.call('RequestConfiguration', {}, timeoutMs)).configuration;
    } catch (error) {
      throw configurationError(error);
    }
  }

  /** Publishes the answer to a request; it is no error when the requester is gone. */
  async reply(request, body) {
    await this.publish('', request.replyTo, body,
      { noRouteIsError: false, correlationId: request.properties.correlationId });
  }

  /** Calls the agent again and again until it has answered for good or the time is over. */
  async call(method, request, timeoutMs) {
    const { path: name, requestSerialize, responseDeserialize } = Applications.service[method];
    // Once, and so that a request that is none fails here.
    const bytes = requestSerialize(request);
    const deadline = Date.now() + timeoutMs;
    const pauses = new BackOff(50, 1000);
    for (;;) {
      try {
        return await new Promise((resolve, reject) => {
          this.stub.makeUnaryRequest(name, (same) => same, responseDeserialize, bytes, { deadline },
            (error, response) => (error ? reject(error) : resolve(response)));
        });
      } catch (error) {
        const pause = pauses.next();
        if (FINAL.includes(error.code) || Date.now() + pause >= deadline) {
          throw error;
        }
        await new Promise((resolve) => { setTimeout(resolve, pause); });
      }
    }
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
    if (welcome) {
      this.client.emit('welcome', welcome);
    }
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

  get type() { return this.properties.type.toString(); }

  get replyTo() { return this.properties.replyTo.toString(); }

  get correlationId() { return this.properties.correlationId.toString(); }

  get messageId() { return this.properties.messageId.toString(); }

  /** An object; texts in it are Buffers, whole numbers are strings of digits. */
  get headers() { return tableFrom(this.properties.headers); }
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

function publishError(error) {
  const { code, details } = error;
  switch (code) {
    case undefined: return error;
    case grpc.status.NOT_FOUND: return new NoRoute(details);
    // gRPC itself refuses it, in words of its own.
    case grpc.status.RESOURCE_EXHAUSTED: return new Refused(`the message is too large for the agent: ${details}`);
    default: return FINAL.includes(code) ? new Refused(details) : new Unconfirmed(details);
  }
}

function configurationError({ code, details }) {
  switch (code) {
    case grpc.status.NOT_FOUND: return new NoPlane(details);
    case grpc.status.RESOURCE_EXHAUSTED: return new TooSoon(details);
    default: return FINAL.includes(code) ? new NotSetUp(details) : new NotConfirmed(details);
  }
}

/** Properties as the .proto file has them. */
function propertiesFrom({ headers = {}, ...given }) {
  const unknown = Object.keys(given).find((name) => !PROPERTIES.includes(name));
  if (unknown) {
    throw new TypeError(`there is no property ${unknown}: use ${PROPERTIES.join(', ')}`);
  }
  const bytes = Object.entries(given)
    .map(([name, value]) => [name, typeof value === 'string' ? Buffer.from(value) : value]);
  return { ...Object.fromEntries(bytes), headers: Object.entries(headers).map(([name, value]) => (
    { name: Buffer.from(name), value: headerValueFrom(name, value) })) };
}

function headerValueFrom(name, value) {
  switch (typeof value) {
    case 'boolean': return { boolean: value };
    case 'bigint': return { integer: value.toString() };
    case 'number': return Number.isSafeInteger(value) ? { integer: value } : { number: value };
    case 'string': return { text: Buffer.from(value) };
    default:
  }
  if (Buffer.isBuffer(value)) {
    return { text: value };
  }
  throw new TypeError(`the header ${name} is ${value}: use a text, a Buffer, a number, a bigint or a boolean`);
}

function tableFrom(headers) {
  return Object.fromEntries(headers.map(({ name, value }) => [name.toString(), valueFrom(value)]));
}

function valueFrom(value) {
  switch (value.kind) {
    case 'null': case undefined: return null;
    case 'table': return tableFrom(value.table.headers);
    case 'array': return value.array.values.map(valueFrom);
    default: return value[value.kind];
  }
}

/** As much of a text as fits into so many bytes. */
function utf8Prefix(text, most) {
  return new TextDecoder().decode(Buffer.from(text).subarray(0, most), { stream: true });
}

module.exports = { Client, Message, Retry, Dead, AttachError, PublishError, NoRoute, Refused, Unconfirmed,
  ConfigurationError, NoPlane, NotSetUp, TooSoon, NotConfirmed };
