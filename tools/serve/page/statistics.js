// The panel's statistics: what the file is, where its bytes are, what each zoom holds.

import { bytes, count, h } from "./dom.js";

const kinds = { pyramid: "pyramid of map tiles", grid: "grid of cells", names: "tiles by name" };

export function statistics(file, info) {
  // A pyramid's metadata is a tile to the file, but not to the reader.
  const sum = (what) => (file.kind === "names" ? info[what]
    : info.zooms.reduce((all, zoom) => all + zoom[what], 0));
  return h("section", { class: "statistics", "aria-labelledby": "statistics-title" },
    h("h2", { id: "statistics-title" }, "File"),
    facts([
      ["Kind", kinds[file.kind] + (info.format ? `, ${info.format}` : "")],
      ["File", h("span", { class: "path" }, info.path)],
      ["Tiles", count(sum("tiles"))],
      ["Versions", count(sum("versions"))],
      ["Damaged", info.damaged ? h("span", { class: "wrong" }, count(info.damaged)) : null],
      ["File size", bytes(info.fileSize)],
      ["Password", info.hasPassword ? "yes" : null],
    ]),
    use(info),
    info.zooms.some(({ zoom }) => zoom !== null) ? zoomTable(info.zooms) : extent(info.zooms),
    metadata(info.metadata));
}

const facts = (rows) => h("dl", {}, rows
  .filter(([, value]) => value !== null && value !== undefined && value !== "")
  .map(([name, value]) => h("div", {}, h("dt", {}, name), h("dd", {}, value))));

/** Live payload, dead space, and the rest, which is index and heads: as a bar, and in figures. */
function use(info) {
  const parts = [
    ["live", "Tiles", info.bytes],
    ["rest", "Index and heads", Math.max(0, info.fileSize - info.bytes - info.dead)],
    ["dead", "Dead space", info.dead],
  ];
  const share = (size) => (info.fileSize ? (100 * size) / info.fileSize : 0);
  const bar = h("div", { class: "bar", role: "img", "aria-label": parts.map(([, name, size]) =>
    `${name} ${share(size).toFixed(1)} %`).join(", ") });
  for (const [kind, , size] of parts) {
    const piece = h("span", { class: kind });
    piece.style.width = `${share(size)}%`;
    bar.append(piece);
  }
  return h("div", { class: "use" }, bar,
    h("ul", { class: "legend" }, parts.map(([kind, name, size]) => h("li", {},
      h("span", { class: `swatch ${kind}` }), `${name} `,
      h("b", {}, bytes(size)), h("span", { class: "soft" }, ` ${share(size).toFixed(1)} %`)))));
}

function zoomTable(zooms) {
  const most = Math.max(1, ...zooms.map((zoom) => zoom.bytes));
  const row = (zoom) => {
    const bar = h("span", { class: "size" });
    bar.style.width = `${(100 * zoom.bytes) / most}%`;
    return h("tr", {}, h("th", { scope: "row" }, zoom.zoom), h("td", {}, count(zoom.tiles)),
      h("td", {}, count(zoom.versions)), h("td", {}, bytes(zoom.bytes), bar));
  };
  return h("table", {}, h("caption", {}, "By zoom"),
    h("thead", {}, h("tr", {}, ["Zoom", "Tiles", "Versions", "Bytes"].map((name) =>
      h("th", { scope: "col" }, name)))),
    h("tbody", {}, zooms.map(row)));
}

/** Which part of a grid is filled. */
function extent([grid]) {
  if (!grid?.tiles) return null;
  const range = ([first, last]) => `${first}–${last}`;
  return h("p", { class: "soft" },
    `The tiles are in rows ${range(grid.rows)} and columns ${range(grid.columns)}.`);
}

function metadata(values) {
  const rows = Object.entries(values ?? {});
  if (!rows.length) return null;
  const text = (value) => (typeof value === "string" ? value : JSON.stringify(value));
  return h("details", {}, h("summary", {}, "Metadata"),
    facts(rows.map(([name, value]) => [name, text(value)])));
}
