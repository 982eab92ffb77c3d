// The panel's statistics: what the file is, where its bytes are, what each zoom holds.

import * as api from "./api.js";
import { bytes, count, h, plural, token } from "./dom.js";

const kinds = { pyramid: "pyramid of map tiles", grid: "grid of cells", names: "tiles by name" };

export function statistics(file, info, signal) {
  return h("section", { class: "statistics", "aria-labelledby": "statistics-title" },
    h("h2", { id: "statistics-title" }, "File"),
    facts([
      ["Kind", kinds[file.kind] + (info.format ? `, ${info.format}` : "")],
      ["Path", h("span", { class: "path" }, info.path)],
      ["Tiles", count(info.tiles)],
      ["Versions", count(info.versions)],
      ["File size", bytes(info.fileSize)],
      ["Byte order", info.byteOrder],
      ["Password", info.hasPassword ? "yes" : null],
    ]),
    use(file, info, signal),
    info.zooms?.some(({ zoom }) => zoom !== null) ? zoomTable(info.zooms) : gridSize(info),
    metadata(info.metadata));
}

const facts = (rows) => h("dl", {}, rows
  .filter(([, value]) => value !== null && value !== undefined && value !== "")
  .map(([name, value]) => h("div", {}, h("dt", {}, name), h("dd", {}, value))));

/** Live payload, dead space, and the rest, which is index and heads: as a bar, and in figures. */
function use(file, info, signal) {
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
  const strips = h("div", {});
  drawStrips(strips, file, signal);
  return h("div", { class: "use" }, bar,
    h("ul", { class: "legend" }, parts.map(([kind, name, size]) => h("li", {},
      h("span", { class: `swatch ${kind}` }), `${name} `,
      h("b", {}, bytes(size)), h("span", { class: "soft" }, ` ${share(size).toFixed(1)} %`)))),
    strips);
}

/** The file from its first to its last byte: the fuller of tiles, the darker. */
async function drawStrips(place, file, signal) {
  const space = await api.space(file, 256, signal);
  if (!space?.strips?.length || signal.aborted) return;
  const size = space.fileSize / space.strips.length;
  const canvas = h("canvas", { width: space.strips.length, height: 1, class: "strips", role: "img",
    "aria-label": "Where the tiles lie in the file, from its first byte to its last" });
  const context = canvas.getContext("2d");
  const paint = () => {
    context.clearRect(0, 0, canvas.width, 1);
    context.fillStyle = token("--accent");
    space.strips.forEach((live, i) => {
      context.globalAlpha = Math.min(1, live / size);
      context.fillRect(i, 0, 1, 1);
    });
  };
  paint();
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", paint, { signal });
  place.append(canvas, h("p", { class: "ends soft" }, h("span", {}, "first byte"),
    h("span", {}, "last byte")));
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

function gridSize(info) {
  const grid = info.zooms?.[0];
  if (!grid?.rows) return null;
  return h("p", { class: "soft" }, `${plural(grid.rows, "row")}, ${plural(grid.columns, "column")}, ` +
    `${((100 * info.tiles) / (grid.rows * grid.columns)).toFixed(1)} % filled`);
}

function metadata(values) {
  const rows = Object.entries(values ?? {});
  if (!rows.length) return null;
  const text = (value) => (typeof value === "string" ? value : JSON.stringify(value));
  return h("details", {}, h("summary", {}, "Metadata"),
    facts(rows.map(([name, value]) => [name, text(value)])));
}
