// A picture of the file itself: which cells of a grid, or of one zoom, are filled, and how.

import * as api from "./api.js";
import { bytes, h, plural, token } from "./dom.js";
import * as address from "./state.js";

/** What a field's colour can tell: its value, of the sums over the field's cells, and that in words. */
const scales = {
  tiles: {
    title: "how full",
    value: ({ tiles }, cells) => tiles / cells,
    text: (value) => `${Math.round(100 * value)} %`,
  },
  versions: {
    title: "versions per tile",
    value: ({ tiles, versions }) => versions / tiles,
    text: (value) => String(Math.round(10 * value) / 10),
  },
  bytes: {
    title: "bytes per tile",
    value: ({ tiles, bytes: sum }) => sum / tiles,
    text: bytes,
  },
};
const shades = 5;
const largestField = 40;  // pixels
const widestBox = 256;    // cells, of which the server looks up each
const isNarrow = matchMedia("(max-width: 700px)");
const hint = matchMedia("(pointer: coarse)").matches ? "Touch a field to open it."
  : "Point at a field, or walk with the arrow keys; Enter opens it.";

export class PictureView {
  #file;
  #zooms;
  #signal;
  #tell;
  #asked = null;
  #turn = 0;
  #state = {};
  #heat = null;
  #cell = 0;       // pixels of a field
  #cursor = null;  // [row, column] of the field that is pointed at

  #zoom;
  #by;
  #out = h("button", { hidden: true, onclick: () => address.go({ box: "" }) }, "Whole picture");
  #canvas = h("canvas", { class: "heat", tabindex: 0, role: "application",
    "aria-roledescription": "heat map", "aria-describedby": "field" });
  #field = h("p", { id: "field", class: "field", role: "status" });
  #caption = h("figcaption", { class: "soft" });
  #legend = h("p", { class: "scale" });
  #frame = h("div", { class: "frame" }, this.#canvas);

  constructor(stage, file, info, { tell, signal }) {
    this.#file = file;
    this.#signal = signal;
    this.#tell = tell;
    this.#zooms = info.zooms.map(({ zoom }) => zoom).filter((zoom) => zoom !== null);
    const choose = (name, options) => h("select", { id: name, onchange: (event) =>
      address.go({ [name]: event.target.value, ...(name === "zoom" && { box: "" }) }) },
    options.map(([value, text]) => h("option", { value }, text)));
    this.#zoom = choose("zoom", this.#zooms.map((zoom) => [zoom, zoom]));
    this.#by = choose("by", Object.entries(scales).map(([name, { title }]) => [name, title]));
    stage.replaceChildren(
      h("div", { class: "tools" },
        this.#zooms.length ? [h("label", { for: "zoom" }, "Zoom"), this.#zoom] : null,
        h("label", { for: "by" }, "Colour"), this.#by, this.#out, this.#legend),
      h("figure", { class: "picture" }, this.#field, this.#caption, this.#frame));
    this.#listen();
  }

  update(state) {
    this.#state = state;
    const [zoomOfTile] = this.#zooms.length && state.tile ? state.tile.split("/") : [];
    const zoom = this.#zooms.length
      ? [state.zoom, zoomOfTile].map(Number).find((wanted, i) =>
        [state.zoom, zoomOfTile][i] && this.#zooms.includes(wanted)) ?? this.#zooms.at(-1)
      : null;
    this.#by.value = Object.hasOwn(scales, state.by ?? "") ? state.by : "tiles";
    if (zoom !== null) this.#zoom.value = zoom;
    const asked = JSON.stringify([zoom, state.box]);
    if (asked === this.#asked) return this.#draw();
    this.#asked = asked;
    this.#load(zoom, state.box || null);
  }

  recolour() {
    this.#draw();
  }

  async #load(zoom, box) {
    const turn = ++this.#turn;
    const size = Math.max(16, Math.min(128, Math.floor(this.#frame.clientWidth / 4)));
    try {
      const heat = await api.heat(this.#file, zoom, size, box, this.#signal);
      if (turn !== this.#turn) return;
      this.#heat = { ...heat, zoom, size };
      this.#cursor = null;
      this.#draw();
      this.#describe();
    } catch (error) {
      if (error.name === "AbortError") return;
      this.#asked = null;
      this.#tell(error.message, () => this.update(this.#state));
    }
  }

  // -- drawing

  #draw() {
    const { fieldRows, fieldColumns } = this.#heat ?? {};
    this.#canvas.hidden = !fieldRows;
    if (!fieldRows) return;
    // In one column the frame is as high as the picture, elsewhere the picture fits the frame.
    const room = isNarrow.matches ? innerHeight * 0.6 : this.#frame.clientHeight;
    const fits = Math.min(this.#frame.clientWidth / fieldColumns, room / fieldRows, largestField);
    this.#cell = fits >= 1 ? Math.floor(fits) : fits;
    const [width, height] = [fieldColumns * this.#cell, fieldRows * this.#cell];
    const dense = devicePixelRatio;
    Object.assign(this.#canvas, { width: width * dense, height: height * dense });
    Object.assign(this.#canvas.style, { width: `${width}px`, height: `${height}px` });
    const context = this.#canvas.getContext("2d");
    context.scale(dense, dense);
    this.#paint(context);
    this.#outline(context, this.#fieldOfTile(), token("--dead"));
    this.#outline(context, this.#cursor, token("--ink"));
  }

  #paint(context) {
    const { fieldColumns, tiles } = this.#heat;
    const scale = scales[this.#by.value];
    const values = tiles.map((filled, i) => (filled ? scale.value(this.#sums(i), this.#room(i)) : null));
    const [least, most] = values.reduce(([low, high], value) => (value === null ? [low, high]
      : [Math.min(low, value), Math.max(high, value)]), [Infinity, -Infinity]);
    const ramp = Array.from({ length: shades }, (_, i) => token(`--heat-${i}`));
    const empty = token("--heat-empty");
    const gap = this.#cell >= 6 ? 1 : 0;
    const shade = (value) => (most > least
      ? Math.round(((value - least) / (most - least)) * (shades - 1)) : shades - 2);
    values.forEach((value, i) => {
      context.fillStyle = value === null ? empty : ramp[shade(value)];
      context.fillRect((i % fieldColumns) * this.#cell, Math.floor(i / fieldColumns) * this.#cell,
        this.#cell - gap, this.#cell - gap);
    });
    this.#explain(scale, least, most, ramp);
  }

  #explain(scale, least, most, ramp) {
    const swatch = (colour) => {
      const box = h("span", { class: "swatch" });
      box.style.background = colour;
      return box;
    };
    const shown = most > least
      ? [scale.text(least), " ", h("span", { class: "ramp" }, ramp.map(swatch)), " ", scale.text(most)]
      : most === least ? [swatch(ramp[shades - 2]), " ", scale.text(most)] : ["nothing stored"];
    this.#legend.replaceChildren(...shown);
  }

  /** A frame within a field, with a margin that sets it off from any colour. */
  #outline(context, field, colour) {
    if (!field) return;
    const [top, left] = field.map((number) => number * this.#cell);
    for (const [style, width] of [[token("--paper"), 4], [colour, 2]]) {
      context.strokeStyle = style;
      context.lineWidth = width;
      const size = Math.max(2, this.#cell - 2);
      context.strokeRect(left + 0.5, top + 0.5, size, size);
    }
  }

  // -- fields and cells

  #sums(i) {
    const { tiles, versions, bytes: sums } = this.#heat;
    return { tiles: tiles[i], versions: versions[i], bytes: sums[i] };
  }

  /** [row0, column0, row1, column1] of a field's cells. */
  #cells([row, column]) {
    const { step, box } = this.#heat;
    const [row0, column0] = [box[0] + row * step, box[1] + column * step];
    return [row0, column0, Math.min(row0 + step - 1, box[2]), Math.min(column0 + step - 1, box[3])];
  }

  /** How many cells a field has: at the edges of the grid fewer. */
  #room(i) {
    const { fieldColumns } = this.#heat;
    const [row0, column0, row1, column1] =
      this.#cells([Math.floor(i / fieldColumns), i % fieldColumns]);
    return (row1 - row0 + 1) * (column1 - column0 + 1);
  }

  #fieldOfTile() {
    const { zoom, step, box } = this.#heat;
    const numbers = (this.#state.tile ?? "").split("/").map(Number);
    const [row, column] = zoom === null ? numbers : [numbers[2], numbers[1]];
    if (zoom !== null && numbers[0] !== zoom) return null;
    const isIn = row >= box[0] && row <= box[2] && column >= box[1] && column <= box[3];
    return isIn ? [Math.floor((row - box[0]) / step), Math.floor((column - box[1]) / step)] : null;
  }

  #describe() {
    const { step, box, fieldRows, zoom } = this.#heat;
    const range = (name, from, to) => `${name} ${from}–${to}`;
    this.#canvas.setAttribute("aria-label", zoom === null ? "Picture of the grid" :
      `Picture of zoom ${zoom}`);
    this.#caption.textContent = fieldRows ? [
      range("Rows", box[0], box[2]), range("columns", box[1], box[3]),
      step > 1 ? `a field is ${step} × ${step} cells, a click goes in` : "a field is one cell",
    ].join(" · ") : "";
    this.#out.hidden = !this.#state.box;
    this.#say();
  }

  #say() {
    if (!this.#heat.fieldRows) {
      this.#field.textContent = "Nothing is stored here.";
    } else if (!this.#cursor) {
      this.#field.textContent = hint;
    } else {
      const [row0, column0, row1, column1] = this.#cells(this.#cursor);
      const range = (from, to) => (from === to ? from : `${from}–${to}`);
      const sums = this.#sums(this.#cursor[0] * this.#heat.fieldColumns + this.#cursor[1]);
      const kept = sums.tiles === 0 ? "nothing stored" : [plural(sums.tiles, "tile"),
        plural(sums.versions, "version"), bytes(sums.bytes)].join(", ");
      this.#field.textContent =
        `Row ${range(row0, row1)}, column ${range(column0, column1)}: ${kept}`;
    }
  }

  // -- pointing and choosing

  #listen() {
    const canvas = this.#canvas;
    canvas.addEventListener("pointermove", (event) => this.#point(this.#at(event)));
    canvas.addEventListener("pointerleave", () => this.#point(null));
    canvas.addEventListener("click", (event) => this.#choose(this.#at(event)));
    canvas.addEventListener("focus", () => this.#point(this.#cursor ?? this.#fieldOfTile() ?? [0, 0]));
    canvas.addEventListener("blur", () => this.#point(null));
    canvas.addEventListener("keydown", (event) => this.#walk(event));
    const watch = new ResizeObserver(() => this.#draw());
    watch.observe(this.#frame);
    this.#signal.addEventListener("abort", () => watch.disconnect());
  }

  #at({ offsetX, offsetY }) {
    const within = (position, most) => Math.max(0, Math.min(most - 1, Math.floor(position / this.#cell)));
    return [within(offsetY, this.#heat.fieldRows), within(offsetX, this.#heat.fieldColumns)];
  }

  #point(field) {
    if (String(field) === String(this.#cursor)) return;
    this.#cursor = field;
    this.#draw();
    this.#say();
  }

  #walk(event) {
    const { fieldRows, fieldColumns } = this.#heat;
    const [row, column] = this.#cursor ?? [0, 0];
    const to = {
      ArrowUp: [row - 1, column], ArrowDown: [row + 1, column],
      ArrowLeft: [row, column - 1], ArrowRight: [row, column + 1],
      Home: [row, 0], End: [row, fieldColumns - 1],
      PageUp: [0, column], PageDown: [fieldRows - 1, column],
    }[event.key];
    if (to) {
      this.#point([Math.max(0, Math.min(fieldRows - 1, to[0])),
        Math.max(0, Math.min(fieldColumns - 1, to[1]))]);
    } else if (event.key === "Enter" || event.key === " ") {
      this.#choose([row, column]);
    } else if (event.key === "Escape" && this.#state.box) {
      address.go({ box: "" });
    } else {
      return;
    }
    event.preventDefault();
  }

  /** A cell goes to the inspector; a field of many shows what is around it more closely. */
  #choose(field) {
    const { step, size, zoom } = this.#heat;
    const [row0, column0] = this.#cells(field);
    if (step === 1) {
      address.go({ tile: zoom === null ? `${row0}/${column0}` : `${zoom}/${column0}/${row0}` });
      return;
    }
    const span = Math.max(size, Math.min(step, widestBox));
    const around = (first) => Math.max(0, first + Math.floor((step - span) / 2));
    const [top, left] = [around(row0), around(column0)];
    const [bottom, right] = [top + span - 1, left + span - 1];
    address.go({ box: [top, left, bottom, right].join(","), ...(zoom !== null && { zoom }) });
  }
}
