// The page: the list of files, the views of one of them, and the panel beside them.

import * as api from "./api.js";
import { count, h, plural } from "./dom.js";
import { Inspector } from "./inspector.js";
import { NamesView } from "./names.js";
import { PictureView } from "./picture.js";
import * as address from "./state.js";
import { statistics } from "./statistics.js";

const place = Object.fromEntries(
  ["title", "views", "files", "stage", "panel", "trouble", "skip"].map((id) =>
    [id, document.getElementById(id)]));

const views = {
  map: { title: "Map", kinds: ["pyramid"], load: async () => (await import("./map.js")).MapView },
  picture: { title: "Picture", kinds: ["pyramid", "grid"], load: async () => PictureView },
  names: { title: "Names", kinds: ["names"], load: async () => NamesView },
};

let files = null;
/** The file that is shown: { file, info, inspector, ended }; `ended` is aborted once it is not. */
let opened = null;
/** The view that is shown: { name, current, ended }. */
let view = null;

/** A sentence at the foot of the page; none takes it away. */
function tell(sentence, again = null) {
  place.trouble.replaceChildren(...(sentence ? [
    h("p", {}, sentence),
    again && h("button", { onclick: () => (tell(null), again()) }, "Try again"),
    h("button", { onclick: () => tell(null) }, "Close"),
  ] : []).filter(Boolean));
}

const viewsOf = (file) => Object.keys(views).filter((view) => views[view].kinds.includes(file.kind));

const start = (file) => ({ name: file.name, view: viewsOf(file)[0] });

function listFiles(current) {
  place.files.replaceChildren(
    h("ul", {}, files.map((file) =>
      h("li", {}, h("a", {
        href: address.link(start(file)),
        "aria-current": file.name === current ? "page" : null,
        title: file.path,
      }, h("span", { class: "name" }, file.name),
      h("span", { class: "soft" }, file.kind
        ? `${file.kind} · ${count(file.tiles)}` : "cannot be read"))))));
}

function listViews(file, current) {
  place.views.replaceChildren(...viewsOf(file).map((view) =>
    h("a", {
      // The tile that is inspected stays.
      href: address.link({ name: file.name, view, tile: address.read().tile }),
      "aria-current": view === current ? "page" : null,
    }, views[view].title)));
}

/** Takes away what is shown; what it still waits for is given up. */
function closeView() {
  view?.ended.abort();
  view = null;
  place.stage.replaceChildren();
}

function closeFile() {
  closeView();
  opened?.ended.abort();
  opened = null;
  place.panel.replaceChildren();
  place.views.replaceChildren();
}

async function openFile(file) {
  closeFile();
  const ended = new AbortController();
  const inspector = new Inspector(file, ended.signal);
  opened = { file, inspector, ended, info: api.info(file, ended.signal) };
  place.title.textContent = file.name;
  document.title = `${file.name} – hxcf`;
  place.panel.replaceChildren(inspector.element);
  listFiles(file.name);
  const info = await opened.info;
  if (!ended.signal.aborted) place.panel.append(statistics(file, info));
}

async function openView(name) {
  closeView();
  const ended = new AbortController();
  const { file, info } = opened;
  view = { name, ended };
  place.stage.dataset.view = name;
  const [View, known] = await Promise.all([views[name].load(), info]);
  if (ended.signal.aborted) return;
  view.current = new View(place.stage, file, known, { tell, signal: ended.signal });
  view.current.update(address.read());
}

function greet() {
  closeFile();
  place.title.textContent = "Files";
  document.title = "hxcf";
  listFiles(null);
  place.stage.replaceChildren(h("p", { class: "note" }, files.length
    ? `${plural(files.length, "file")} served. Choose one to look at it.`
    : "No file is served."));
}

/** Shows what the address says; what is there already stays. */
async function update() {
  files ??= await api.files();
  const state = address.read();
  const file = files.find(({ name }) => name === state.name);
  if (!file) {
    if (!state.name && files.length === 1) return address.redirect(start(files[0]));
    greet();
    if (state.name) throw new Error(`There is no file ${state.name} here.`);
    return;
  }
  const known = viewsOf(file);
  if (!known.length) {
    greet();
    throw new Error(`${file.name} cannot be shown: ${file.error}`);
  }
  if (!known.includes(state.view)) return address.redirect({ ...state, view: known[0] });
  const work = [];
  if (opened?.file !== file) work.push(openFile(file));
  listViews(file, state.view);
  if (view?.name !== state.view) work.push(openView(state.view));
  else view.current?.update(state);
  opened.inspector.show(state.tile ?? "");
  await Promise.all(work);
}

function run() {
  tell(null);
  update().catch((error) => {
    if (error.name === "AbortError") return;
    // What is half shown is begun anew the next time.
    opened?.ended.abort();
    opened = null;
    view?.ended.abort();
    view = null;
    tell(error.message, run);
  });
}

place.skip.addEventListener("click", (event) => {
  event.preventDefault();  // the hash is the state's
  place.stage.focus();
});
addEventListener("hashchange", run);
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
  view?.current?.recolour?.();
});
run();
