// The inspector: one tile, its versions, a look at it, and the way to its bytes.

import * as api from "./api.js";
import { bytes, count, h, plural } from "./dom.js";
import { layersOf } from "./mvt.js";
import * as address from "./state.js";

const forms = {
  pyramid: { label: "Tile", hint: "zoom/column/row", pattern: /^\d+\/\d+\/\d+$/, example: "4/8/5" },
  grid: { label: "Cell", hint: "row/column", pattern: /^\d+\/\d+$/, example: "3/7" },
  names: { label: "Name", hint: "a name, in full", pattern: /./, example: "a name" },
};

export class Inspector {
  #file;
  #signal;
  #form;
  #key = null;
  #turn = 0;
  #input;
  #found = h("div", { class: "found", "aria-live": "polite" });

  constructor(file, signal) {
    this.#file = file;
    this.#signal = signal;
    this.#form = forms[file.kind];
    this.#input = h("input", { id: "key", placeholder: this.#form.hint, autocomplete: "off",
      autocapitalize: "off", spellcheck: "false", enterkeyhint: "go" });
    this.element = h("section", { class: "inspector", "aria-labelledby": "inspector-title" },
      h("h2", { id: "inspector-title" }, "Inspector"),
      h("form", { onsubmit: (event) => this.#submit(event) },
        h("label", { for: "key" }, this.#form.label), this.#input,
        h("button", {}, "Show")),
      this.#found);
  }

  /** Shows the versions of a tile; an empty key clears. */
  async show(key) {
    if (key === this.#key) return;
    this.#key = key;
    this.#input.value = key;
    const turn = ++this.#turn;
    if (!key) {
      this.#found.replaceChildren(h("p", { class: "soft" }, this.#file.kind === "names"
        ? "Choose a name from the list, or type one."
        : `Choose a ${this.#form.label.toLowerCase()} in the view, or type one.`));
      return;
    }
    const result = await this.#load(key).catch((error) => [h("p", { class: "wrong" }, error.message)]);
    if (turn === this.#turn && !this.#signal.aborted) this.#found.replaceChildren(...result);
  }

  #submit(event) {
    event.preventDefault();
    const typed = this.#input.value.trim();
    // The command writes a cell as "row,column".
    const key = this.#file.kind === "grid" ? typed.replace(/\s*,\s*/, "/") : typed;
    if (key && !this.#form.pattern.test(key)) {
      this.#key = null;
      this.#found.replaceChildren(h("p", { class: "wrong" },
        `That is no ${this.#form.label.toLowerCase()}: write ${this.#form.hint}, such as ` +
        `${this.#form.example}.`));
      return;
    }
    if (key === this.#key) this.#key = null;  // asks again: the tile may have changed
    if (address.read().tile === key) this.show(key);
    else address.go({ tile: key });
  }

  async #load(key) {
    const versions = await api.versions(this.#file, key, this.#signal);
    const title = h("h3", {}, key);
    if (!versions.length) return [title, h("p", { class: "empty" }, "Nothing is stored here.")];
    const look = h("div", { class: "look" });
    this.#preview(look, key, versions[0]);
    return [title, look,
      h("p", { class: "soft" }, plural(versions.length, "version"),
        versions.length > 1 ? ", newest first" : ""),
      h("ol", { class: "versions" }, versions.map((version) => this.#version(key, version, look)))];
  }

  #version(key, version, look) {
    const { stamp, time, encoding } = version;
    const when = time
      ? h("time", { datetime: time }, time.replace("T", " ").replace(/(\.\d+)?Z$/, " UTC"))
      : `stamp ${stamp}`;
    return h("li", {},
      h("p", { class: "when" }, when, time ? h("span", { class: "soft" }, ` ${stamp}`) : null),
      h("p", { class: "soft" }, `${bytes(version.bytes)} · ${version.type}` +
        (encoding ? ` · ${encoding}` : "")),
      h("p", { class: "do" },
        isShown(version)
          ? h("button", { onclick: () => this.#preview(look, key, version) }, "Preview") : null,
        h("a", { href: api.tileUrl(this.#file, key, { stamp, download: 1 }), download: "" },
          "Download")));
  }

  /** A picture, or what a vector tile has in it. */
  async #preview(look, key, version) {
    const url = api.tileUrl(this.#file, key, { stamp: version.stamp });
    if (version.type.startsWith("image/")) {
      const image = h("img", { src: url, alt: `${key}, stamp ${version.stamp}` });
      image.addEventListener("error", () =>
        look.replaceChildren(h("p", { class: "wrong" }, "The bytes are no picture that can be shown.")));
      look.replaceChildren(image);
      return;
    }
    if (!isVector(version)) return look.replaceChildren();
    try {
      const layers = layersOf(await api.payload(url, this.#signal));
      look.replaceChildren(h("table", {},
        h("caption", {}, plural(layers.length, "layer")),
        h("tbody", {}, layers.map(({ name, features }) =>
          h("tr", {}, h("th", { scope: "row" }, name), h("td", {}, count(features)))))));
    } catch (error) {
      look.replaceChildren(h("p", { class: "wrong" }, error.message));
    }
  }
}

const isVector = ({ type }) => /vector-tile|mapbox|protobuf/.test(type);
const isShown = (version) => version.type.startsWith("image/") || isVector(version);
