// The names of a file of names: those with a prefix, some at a time.

import * as api from "./api.js";
import { h, plural } from "./dom.js";
import * as address from "./state.js";

const page = 200;

export class NamesView {
  #file;
  #signal;
  #tell;
  #prefix = null;
  #turn = 0;
  #tile = "";
  #input;
  #list = h("ul", { class: "names" });
  #count = h("p", { class: "soft", role: "status" });
  #more = h("button", { class: "more", hidden: true }, "More");

  constructor(stage, file, info, { tell, signal }) {
    this.#file = file;
    this.#signal = signal;
    this.#tell = tell;
    let later = 0;
    this.#input = h("input", { id: "prefix", type: "search", autocomplete: "off", spellcheck: "false",
      autocapitalize: "off", placeholder: "any",
      oninput: () => {
        clearTimeout(later);
        later = setTimeout(() => this.#search(), 200);
      } });
    const search = h("form", { class: "tools", role: "search", onsubmit: (event) => {
      event.preventDefault();
      clearTimeout(later);
      this.#search();
    } }, h("label", { for: "prefix" }, "Names beginning with"), this.#input);
    signal.addEventListener("abort", () => clearTimeout(later));
    stage.replaceChildren(search, this.#count, this.#list, this.#more);
  }

  update({ prefix = "", tile = "" }) {
    this.#tile = tile;
    this.#mark();
    if (prefix === this.#prefix) return;
    if (this.#input.value.trim() !== prefix) this.#input.value = prefix;
    this.#prefix = prefix;
    this.#list.replaceChildren();
    this.#load(null);
  }

  #search() {
    const prefix = this.#input.value.trim();
    address.note({ prefix });
    this.update(address.read());
  }

  async #load(after) {
    const turn = ++this.#turn;
    try {
      const { names, next, escaped = {} } = await api.names(this.#file, this.#prefix, after, page, this.#signal);
      if (turn !== this.#turn) return;
      const { prefix } = address.read();
      // A name that is no text cannot be asked for here.
      this.#list.append(...names.map((name, i) => h("li", {}, escaped[i] ? h("span", {}, escaped[i])
        : h("a", {
          href: address.link({ name: this.#file.name, view: "names", prefix, tile: name }),
          "data-name": name,
        }, name))));
      const size = this.#list.children.length;
      this.#count.textContent = size === 0 ? "No name begins so."
        : `${plural(size, "name")}${next ? " so far" : ""}`;
      this.#more.hidden = !next;
      this.#more.onclick = () => {
        const at = this.#list.children.length;
        this.#load(next).then(() => this.#list.children[at]?.firstChild.focus());
      };
      this.#mark();
    } catch (error) {
      if (error.name !== "AbortError") this.#tell(error.message, () => this.#load(after));
    }
  }

  #mark() {
    for (const { firstChild: name } of this.#list.children) {
      if (name.dataset.name === this.#tile) name.setAttribute("aria-current", "true");
      else name.removeAttribute("aria-current");
    }
  }
}
