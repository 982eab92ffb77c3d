// The names of a vector tile's layers, and how many features each has: enough to find the layers of a set
// whose metadata does not tell them.

const broken = () => new Error("The bytes are no vector tile.");

/** [{ name, features }] of a tile's bytes; throws if they are none. */
export function layersOf(tile) {
  return [...fields(tile)].filter(({ number, bytes }) => number === 3 && bytes).map(({ bytes }) => {
    let name = "";
    let features = 0;
    for (const field of fields(bytes)) {
      if (field.number === 1 && field.bytes) name = new TextDecoder().decode(field.bytes);
      if (field.number === 2) features += 1;
    }
    return { name, features };
  });
}

/** The fields of a message: { number, bytes }, where bytes are those of a field with a length. */
function* fields(message) {
  let at = 0;
  const varint = () => {
    let value = 0;
    for (let factor = 1; at < message.length && factor < 2 ** 63; factor *= 128) {
      const byte = message[at++];
      value += (byte & 127) * factor;
      if (byte < 128) return value;
    }
    throw broken();
  };
  const skip = { 1: 8, 5: 4 };
  while (at < message.length) {
    const tag = varint();
    const number = Math.floor(tag / 8);
    const type = tag % 8;
    if (type === 0) {
      varint();
      yield { number };
      continue;
    }
    const size = type === 2 ? varint() : skip[type];
    if (!(size <= message.length - at)) throw broken();
    yield { number, bytes: type === 2 ? message.subarray(at, at + size) : undefined };
    at += size;
  }
}
