// What an application does with the official OpenAI client, against a running controller.
// Usage: node client_test.mjs BASE_URL MODEL      e.g. http://127.0.0.1:8080/v1 dev-echo
// The controller needs at least one development worker with that model. Exit status 0: all passed.
import assert from 'node:assert/strict';
import OpenAI from 'openai';

const [baseURL, model] = process.argv.slice(2);
if (!model) {
  console.error('Usage: node client_test.mjs BASE_URL MODEL');
  process.exit(2);
}
const client = new OpenAI({ baseURL, apiKey: 'unused', maxRetries: 0, timeout: 20_000 });
const ask = (content) => ({ model, messages: [{ role: 'user', content }] });
const weather = {
  type: 'function',
  function: {
    name: 'get_weather',
    description: 'The weather of a place',
    parameters: { type: 'object', properties: { place: { type: 'string' } }, required: ['place'] },
  },
};

async function collect(stream) {
  const chunks = [];
  for await (const chunk of stream) chunks.push(chunk);
  return chunks;
}

const tests = {
  async 'a completion comes whole, and tells who made it'() {
    const { data, response } = await client.chat.completions.create(ask('Good morning')).withResponse();
    assert.equal(data.object, 'chat.completion');
    assert.equal(data.choices[0].message.role, 'assistant');
    assert.match(data.choices[0].message.content, /Good morning/);
    assert.ok(data.usage.total_tokens > 0);
    assert.ok(response.headers.get('x-tavrel-worker'));
    assert.match(response.headers.get('x-request-id'), /^req-[0-9a-f]{16}$/);
  },

  async 'a stream says the same as the whole answer, piece by piece'() {
    const whole = await client.chat.completions.create(ask('One two three four'));
    const chunks = await collect(
      await client.chat.completions.create({
        ...ask('One two three four'), stream: true, stream_options: { include_usage: true },
      }));
    const text = chunks.map((chunk) => chunk.choices[0]?.delta?.content ?? '').join('');
    assert.equal(text, whole.choices[0].message.content);
    assert.ok(chunks.length > 3);
    assert.equal(chunks.at(-1).usage.completion_tokens, whole.usage.completion_tokens);
    assert.ok(chunks.some((chunk) => chunk.choices[0]?.finish_reason === 'stop'));
  },

  async 'the stream helper runs to its end'() {
    const runner = client.chat.completions.stream(ask('Hello'));
    let seen = '';
    runner.on('content', (delta) => { seen += delta; });
    assert.equal(await runner.finalContent(), seen);
  },

  async 'a tool is called, and its result answered'() {
    const question = { role: 'user', content: 'Weather in Oslo?' };
    const first = await client.chat.completions.create({ model, messages: [question], tools: [weather] });
    const [call] = first.choices[0].message.tool_calls;
    assert.equal(first.choices[0].finish_reason, 'tool_calls');
    assert.equal(call.function.name, 'get_weather');
    assert.equal(typeof JSON.parse(call.function.arguments).place, 'string');
    const second = await client.chat.completions.create({
      model,
      messages: [question, first.choices[0].message,
                 { role: 'tool', tool_call_id: call.id, content: 'Rain' }],
      tools: [weather],
    });
    assert.match(second.choices[0].message.content, /Rain/);
  },

  async 'a streamed tool call can be put together again'() {
    const runner = client.chat.completions.stream({ ...ask('Weather?'), tools: [weather] });
    const message = await runner.finalMessage();
    assert.equal(message.tool_calls[0].function.name, 'get_weather');
    JSON.parse(message.tool_calls[0].function.arguments);
  },

  async 'plain completions and embeddings work'() {
    const text = await client.completions.create({ model, prompt: 'Once' });
    assert.equal(typeof text.choices[0].text, 'string');
    const vectors = await client.embeddings.create({ model, input: ['a', 'b'], dimensions: 8 });
    assert.deepEqual(vectors.data.map((entry) => entry.embedding.length), [8, 8]);
  },

  async 'the model is listed'() {
    const ids = [];
    for await (const entry of client.models.list()) ids.push(entry.id);
    assert.ok(ids.includes(model), ids.join(', '));
  },

  async 'errors become the exceptions an application expects'() {
    await assert.rejects(
      client.chat.completions.create({ ...ask('x'), model: 'no-such-model' }),
      (error) => error instanceof OpenAI.NotFoundError && error.code === 'model_not_found' &&
                 error.type === 'invalid_request_error' && error.param === 'model' &&
                 /^req-/.test(error.requestID));
    await assert.rejects(
      client.chat.completions.create({ model, messages: [] }),
      (error) => error instanceof OpenAI.BadRequestError && error.param === 'messages');
    await assert.rejects(
      client.chat.completions.create({ ...ask('x'), model: 'no-such-model', stream: true }),
      OpenAI.NotFoundError);
  },

  async 'a stream can be left early'() {
    const stream = await client.chat.completions.create({ ...ask('a b c d e f g'), stream: true });
    for await (const chunk of stream) {
      assert.equal(chunk.object, 'chat.completion.chunk');
      break;
    }
    assert.ok(stream.controller.signal.aborted);
  },

  async 'many requests at once are all answered'() {
    const answers = await Promise.all(
      Array.from({ length: 40 }, (_, i) => client.chat.completions.create(ask(`number ${i}.`))));
    answers.forEach((answer, i) =>
      assert.match(answer.choices[0].message.content, new RegExp(`number ${i}\\.`)));
  },
};

let failed = 0;
for (const [name, run] of Object.entries(tests)) {
  try {
    await run();
    console.log(`ok      ${name}`);
  } catch (error) {
    ++failed;
    console.log(`FAILED  ${name}\n${error.stack ?? error}`);
  }
}
process.exit(failed === 0 ? 0 : 1);
