// What the page shows, kept in the address: #/world/map?at=4.2/48.1/11.5&tile=3/2/1. A reload or a link
// shows the same.

export function read() {
  const [path, values = ""] = location.hash.replace(/^#\/?/, "").split("?");
  const [name = "", view = ""] = path.split("/").map(decode);
  return { name, view, ...Object.fromEntries(new URLSearchParams(values)) };
}

/** The hash of a state; what is empty is left out. */
export function link({ name, view, ...values }) {
  const given = Object.entries(values).filter(([, value]) => value);
  // Slashes, commas and stars read better as they are, and mean nothing in a hash.
  const text = new URLSearchParams(given).toString().replace(/%2F/g, "/").replace(/%2C/g, ",");
  return `#/${encodeURIComponent(name)}/${view}${text && `?${text}`}`;
}

/** Goes to what is shown now with these changes; what has changed is shown by "hashchange". */
export function go(changes) {
  location.hash = link({ ...read(), ...changes });
}

/** The same for what the reader has not asked for: one step back leaves it. */
export const redirect = (state) => location.replace(link(state));

/** Notes what the reader has done, such as moving the map, without a new step to go back to. */
export function note(changes) {
  history.replaceState(null, "", link({ ...read(), ...changes }));
}

function decode(text) {
  try {
    return decodeURIComponent(text);
  } catch {
    return text;
  }
}
