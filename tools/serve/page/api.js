// What the server is asked. Every failure is an Error whose message is a sentence for the reader.

const away = "The server does not answer. Is hxcf serve still running?";

async function ask(url, signal) {
  let answer;
  try {
    answer = await fetch(url, { signal, cache: "no-cache" });
  } catch (error) {
    throw error.name === "AbortError" ? error : new Error(away);
  }
  if (!answer.ok) throw new Error(await sentence(answer));
  return answer;
}

/** The sentence that the server has given, or one made of its status. */
async function sentence(answer) {
  const isText = (answer.headers.get("Content-Type") ?? "").startsWith("text/plain");
  const text = isText ? (await answer.text()).trim() : "";
  return text || `The server answers ${answer.status} ${answer.statusText}.`;
}

/** The sentence for a tile that the map could not load or draw. */
export async function tileTrouble(error, name) {
  if (error.status === undefined) return error instanceof TypeError ? away : `${name}: ${error.message}`;
  return `${name}: ${await sentence(new Response(error.body, error))}`;
}

async function json(url, signal) {
  try {
    return await (await ask(url, signal)).json();
  } catch (error) {
    throw error instanceof SyntaxError ? new Error(`The answer to ${url} makes no sense.`) : error;
  }
}

const query = (values) => {
  const given = Object.entries(values).filter(([, value]) => value !== null && value !== undefined);
  return given.length ? `?${new URLSearchParams(given)}` : "";
};

/** All addresses are relative: the page works behind a proxy's prefix, too. */
const of = (file) => encodeURIComponent(file.name);

export const files = () => json("index.json");
export const info = (file, signal) => json(`${of(file)}/info.json`, signal);
export const tileJson = (file, signal) => json(`${of(file)}.json`, signal);
export const heat = (file, zoom, size, box, signal) =>
  json(`${of(file)}/heat.json${query({ zoom, size, box })}`, signal);
export const names = (file, prefix, after, limit, signal) =>
  json(`${of(file)}/names.json${query({ prefix, after, limit })}`, signal);
export const versions = (file, key, signal) =>
  json(`${of(file)}/versions.json${query({ [part(file)]: key })}`, signal);

const part = (file) => ({ pyramid: "tile", grid: "cell", names: "name" })[file.kind];

/** The address of a tile, by the key that the inspector takes. */
export function tileUrl(file, key, values = {}) {
  const place = { pyramid: key, grid: `cell/${key}`, names: `name/${encodeURIComponent(key)}` };
  return `${of(file)}/${place[file.kind]}${query(values)}`;
}

/** The template of a pyramid's tiles, absolute, for workers have other base addresses. */
export const template = (file) => `${new URL(of(file), document.baseURI)}/{z}/{x}/{y}`;

export const payload = async (url, signal) =>
  new Uint8Array(await (await ask(url, signal)).arrayBuffer());
