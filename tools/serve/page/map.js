// The tiles of a pyramid as a map: pictures as they are, vector tiles with a colour for each layer.

import * as api from "./api.js";
import { h, token } from "./dom.js";
import * as library from "./maplibre-gl.mjs";
import { layersOf } from "./mvt.js";
import * as address from "./state.js";

const pictures = ["png", "jpg", "jpeg", "webp", "avif", "gif"];
const vectors = ["pbf", "mvt"];
const colours = 8;
const extraZoom = 4;  // how much closer than the last zoom one can look

export class MapView {
  #file;
  #signal;
  #tell;
  #stage;
  #map = null;
  #info;
  #tiles = null;  // TileJSON
  #isVector = false;
  #layers = [];  // names, in the order of their colours
  #state = {};
  #noted = "";
  #isReady = false;
  #tile = "";
  #tools = h("div", { class: "tools" });
  #reading = h("output", { class: "reading" });
  #switches = h("fieldset", { class: "layers" }, h("legend", {}, "Layers"));
  #place = h("div", { class: "map" });

  constructor(stage, file, info, { tell, signal }) {
    this.#file = file;
    this.#info = info;
    this.#signal = signal;
    this.#tell = tell;
    this.#stage = stage;
    signal.addEventListener("abort", () => this.#map?.remove());
  }

  update(state) {
    this.#state = state;
    if (this.#tiles) return this.#apply();
    this.#tiles = {};
    this.#open().catch((error) => {
      if (error.name === "AbortError") return;
      this.#tiles = null;
      this.#tell(error.message, () => this.update(this.#state));
    });
  }

  recolour() {
    if (this.#map) this.#list();
  }

  async #open() {
    if (!library.Map) return this.#leaveOut("The map is left out: this program was built without npm.");
    const tiles = await api.tileJson(this.#file, this.#signal);
    const format = (tiles.format || this.#file.format || "").toLowerCase();
    this.#isVector = vectors.includes(format);
    if (!this.#isVector && !pictures.includes(format)) {
      return this.#leaveOut(`There is no map of these tiles: their format is ${format || "not known"}.`);
    }
    const odd = this.#info.zooms.find(({ zoom, rows, columns }) =>
      Math.max(...rows, ...columns) >= 2 ** zoom);
    if (odd) {
      return this.#leaveOut(`There is no map of these tiles: zoom ${odd.zoom} has columns or rows beyond ` +
        `${2 ** odd.zoom - 1}, so they are not of the web's square world.`);
    }
    await styleSheet();
    if (this.#signal.aborted) return;
    this.#tiles = tiles;
    this.#layers = (tiles.vector_layers ?? []).map(({ id }) => id);
    this.#stage.replaceChildren(this.#tools, this.#place);
    try {
      this.#show();
    } catch (error) {
      return this.#leaveOut(`This browser cannot show the map: ${error.message}`);
    }
    this.#list();
  }

  #leaveOut(sentence) {
    this.#stage.replaceChildren(h("p", { class: "note" }, sentence));
  }

  #show() {
    const { maxzoom = 14 } = this.#tiles;
    const at = place(this.#state.at);
    const bounds = this.#tiles.bounds ?? extent(this.#info.zooms.at(-1));
    this.#place.setAttribute("aria-busy", "true");
    this.#map = new library.Map({
      container: this.#place,
      style: this.#style(),
      ...(at ?? { bounds, fitBoundsOptions: { padding: 24, maxZoom: maxzoom } }),
      maxZoom: Math.min(24, maxzoom + extraZoom),
      renderWorldCopies: false,
      // The whole of the world may be smaller than the map.
      transformConstrain: ({ lng, lat }, zoom) => ({
        center: { lng: within(lng, 180), lat: within(lat, 85) },
        zoom: Math.max(-2, zoom),
      }),
      attributionControl: { compact: false,
        customAttribution: '<a href="_/maplibre-gl-LICENSE.txt">MapLibre</a>' },
      dragRotate: false,
      pitchWithRotate: false,
      touchPitch: false,
      fadeDuration: 0,
      // What the file holds now is shown, not what it held when a tile was last seen.
      transformRequest: (url) => ({ url, cache: "no-cache" }),
    });
    // Bounds may fit at a zoom where no tiles are yet.
    if (!at && this.#map.getZoom() < this.#first()) this.#map.jumpTo({ zoom: this.#first() });
    this.#map.touchZoomRotate.disableRotation();
    this.#map.keyboard.disableRotation();
    this.#map.addControl(new library.NavigationControl({ showCompass: false }), "top-right");
    this.#map.addControl(new library.ScaleControl(), "bottom-left");
    this.#listen();
  }

  #listen() {
    const map = this.#map;
    map.once("style.load", () => {
      this.#isReady = true;
      this.#apply();
    });
    map.on("idle", () => this.#place.setAttribute("aria-busy", "false"));
    map.on("dataloading", () => this.#place.setAttribute("aria-busy", "true"));
    map.on("moveend", () => {
      const { lat, lng } = map.getCenter();
      this.#noted = [map.getZoom().toFixed(2), lat.toFixed(5), lng.toFixed(5)].join("/");
      if (!this.#signal.aborted) address.note({ at: this.#noted });
      map.getSource("borders")?.setData(this.#borders());
    });
    map.on("zoom", () => this.#read());
    map.on("click", ({ lngLat }) => this.#choose(lngLat));
    map.getCanvas().addEventListener("keydown", ({ key }) => {
      if (key === "Enter") this.#choose(map.getCenter());
    });
    map.on("error", async ({ error, tile }) => {
      const { z, x, y } = tile?.tileID?.canonical ?? {};
      this.#tell(await api.tileTrouble(error, tile ? `Tile ${z}/${x}/${y}` : "The map"));
    });
    if (this.#isVector && !this.#layers.length) map.on("data", (event) => this.#discover(event));
  }

  // -- what the address says

  #apply() {
    const { at, tile, borders } = this.#state;
    const map = this.#map;
    for (const box of this.#tools.querySelectorAll("input")) {
      box.checked = box.value ? !this.#off().includes(box.value) : borders === "1";
    }
    if (!this.#isReady) return;
    map.setStyle(this.#style());  // changes what differs
    if (at && at !== this.#noted) map.jumpTo(place(at) ?? {});
    this.#noted = at ?? this.#noted;
    const bounds = boundsOf(tile);
    if (tile !== this.#tile && bounds && !meet(bounds, map.getBounds().toArray())) {
      const { clientWidth, clientHeight } = this.#place;
      const padding = Math.min(clientWidth, clientHeight) / 4;  // its neighbours are seen, too
      map.fitBounds(bounds, { padding, maxZoom: this.#tiles.maxzoom, animate: false });
    }
    this.#tile = tile;
  }

  #off() {
    return (this.#state.off ?? "").split(",").filter(Boolean).map(decodeURIComponent);
  }

  /** From which zoom of the map on there are tiles. */
  #first() {
    const { minzoom = 0 } = this.#tiles;
    return this.#isVector ? minzoom : minzoom - 1;
  }

  #read() {
    const zoom = this.#map.getZoom();
    this.#reading.textContent = zoom + 0.5 < this.#first()
      ? `too far away: the tiles begin at zoom ${this.#tiles.minzoom}`
      : `zoom ${this.#zoom()}`;
  }

  /** The zoom of the tiles that the map shows. */
  #zoom() {
    const { minzoom = 0, maxzoom = 22 } = this.#tiles;
    const zoom = this.#map?.getZoom() ?? 0;
    const shown = this.#isVector ? Math.floor(zoom) : Math.round(zoom + 1);
    return Math.max(minzoom, Math.min(maxzoom, shown));
  }

  #choose(lngLat) {
    const { zoom, column, row } = tileAt(lngLat, this.#zoom());
    address.go({ tile: `${zoom}/${column}/${row}` });
  }

  /** The borders of the tiles in view, with their names. */
  #borders() {
    const features = [];
    if (this.#state.borders === "1" && this.#map) {
      const view = this.#map.getBounds();
      const zoom = this.#zoom();
      const [first, last] = [view.getNorthWest(), view.getSouthEast()].map((at) => tileAt(at, zoom));
      for (let row = first.row; row <= last.row; ++row) {
        for (let column = first.column; column <= last.column; ++column) {
          const name = `${zoom}/${column}/${row}`;
          const bounds = boundsOf(name);
          features.push(...outline(bounds).features, { type: "Feature", properties: { name },
            geometry: { type: "Point", coordinates: [bounds[0][0], bounds[1][1]] } });
        }
      }
    }
    return { type: "FeatureCollection", features };
  }

  // -- the switches

  #list() {
    const box = (value, text, onchange) =>
      h("label", {}, h("input", { type: "checkbox", value, onchange }), text);
    this.#tools.replaceChildren(box("", "Tile borders", (event) =>
      address.go({ borders: event.target.checked ? "1" : "" })));
    if (this.#isVector && this.#layers.length) {
      this.#switches.replaceChildren(this.#switches.firstChild, ...this.#layers.map((name, i) => {
        const swatch = h("span", { class: "swatch", "data-layer": name });
        swatch.style.background = colourOf(i);
        return box(name, h("span", {}, swatch, " ", name), (event) => this.#turn(name, event));
      }));
      this.#tools.append(this.#switches);
    }
    this.#tools.append(this.#reading);
    this.#read();
    this.#apply();
  }

  #turn(name, { target }) {
    const off = this.#off().filter((other) => other !== name).concat(target.checked ? [] : [name]);
    address.go({ off: off.map(encodeURIComponent).join(",") });
  }

  // -- the style

  #style() {
    const { minzoom = 0, maxzoom = 22, bounds, attribution } = this.#tiles;
    const source = { type: this.#isVector ? "vector" : "raster", tiles: [api.template(this.#file)],
      minzoom, maxzoom, ...(bounds && { bounds }),
      ...(attribution && { attribution: harmless(attribution) }) };
    if (!this.#isVector) source.tileSize = 256;
    return {
      version: 8,
      sources: { tiles: source,
        borders: { type: "geojson", data: this.#borders() },
        chosen: { type: "geojson", data: outline(boundsOf(this.#state.tile)) } },
      layers: [
        { id: "ground", type: "background", paint: { "background-color": token("--map") } },
        ...(this.#isVector ? vectorLayers(this.#layers, this.#off()) : [{ id: "picture", type: "raster",
          source: "tiles", paint: { "raster-fade-duration": 0 } }]),
        { id: "borders", type: "line", source: "borders",
          paint: { "line-color": token("--ink"), "line-width": 1 } },
        { id: "names", type: "symbol", source: "borders", filter: ["==", "$type", "Point"],
          layout: { "text-field": ["get", "name"], "text-size": 12, "text-anchor": "top-left",
            "text-offset": [0.4, 0.3], "text-allow-overlap": true },
          paint: { "text-color": token("--ink"), "text-halo-color": token("--paper"),
            "text-halo-width": 2 } },
        { id: "around chosen", type: "line", source: "chosen",
          paint: { "line-color": token("--paper"), "line-width": 6 } },
        { id: "chosen", type: "line", source: "chosen",
          paint: { "line-color": token("--accent"), "line-width": 3 } },
      ],
    };
  }

  /** Layers of which the metadata do not tell, from the tiles as they come. */
  async #discover({ tile, coord, sourceId }) {
    if (sourceId !== "tiles" || tile?.state !== "loaded") return;
    const { z, x, y } = coord.canonical;
    const found = layersOf(await api.payload(api.tileUrl(this.#file, `${z}/${x}/${y}`), this.#signal)
      .catch(() => new Uint8Array()));
    const more = found.map(({ name }) => name).filter((name) => !this.#layers.includes(name));
    if (!more.length || this.#signal.aborted) return;
    // In the order of their names: colours do not depend on which tile came first.
    this.#layers = [...this.#layers, ...more].sort();
    this.#list();
  }
}

/** Of an attribution only the text and the links: whoever made the file has written it. */
function harmless(html) {
  const template = h("template");  // what is in it does nothing
  // Handlers would not run, but a browser complains of each.
  template.innerHTML = html.replace(/<[^>]*>/g, (tag) =>
    tag.replace(/(?<=[\s/"'])on\w+(?=\s*=)/gi, "data-off"));
  for (const element of [...template.content.querySelectorAll("*")]) {
    const isLink = element.localName === "a" && /^https?:/.test(element.getAttribute("href") ?? "");
    element.replaceWith(...(isLink ? [h("a", { href: element.href, rel: "noopener" }, ...element.childNodes)]
      : element.childNodes));
  }
  return template.innerHTML;
}

const colourOf = (i) => token(`--layer-${i % colours}`);

/** Areas below lines below points. A set without known layers has one that draws nothing: it loads tiles. */
function vectorLayers(names, off) {
  const make = (type, shape, paint) => names.map((name, i) => ({ id: `${type} ${shape} ${name}`, type,
    source: "tiles", "source-layer": name, filter: ["==", "$type", shape], paint: paint(colourOf(i)),
    layout: { visibility: off.includes(name) ? "none" : "visible" } }));
  const line = (width) => (colour) => ({ "line-color": colour, "line-width": width });
  if (!names.length) {
    return [{ id: "none", type: "line", source: "tiles", "source-layer": "\u0000" }];
  }
  return [
    ...make("fill", "Polygon", (colour) => ({ "fill-color": colour, "fill-opacity": 0.2 })),
    ...make("line", "LineString", line(1.5)),
    ...make("line", "Polygon", line(0.75)),
    ...make("circle", "Point", (colour) => ({ "circle-color": colour, "circle-radius": 3.5,
      "circle-stroke-width": 1, "circle-stroke-color": token("--map") })),
  ];
}

/** The library's style sheet, once. */
function styleSheet() {
  const href = new URL("./maplibre-gl.css", import.meta.url).href;
  if (document.querySelector(`link[href="${href}"]`)) return undefined;
  return new Promise((done) => {
    document.head.prepend(h("link", { rel: "stylesheet", href, onload: done, onerror: done }));
  });
}

/** "zoom/latitude/longitude" as options of a map, or null. */
function place(at) {
  const [zoom, lat, lng] = (at ?? "").split("/").map(Number);
  return at && [zoom, lat, lng].every(Number.isFinite) && Math.abs(lat) <= 90
    ? { zoom, center: [lng, lat] } : null;
}

/** The tile of a zoom that a place lies in. */
function tileAt({ lng, lat }, zoom) {
  const { x, y } = library.MercatorCoordinate.fromLngLat({ lng, lat: within(lat, 85.0511) });
  const index = (part) => Math.max(0, Math.min(2 ** zoom - 1, Math.floor(part * 2 ** zoom)));
  return { zoom, column: index(x), row: index(y) };
}

/** [[west, south], [east, north]] of "zoom/column/row", or null. */
function boundsOf(tile) {
  const [zoom, column, row] = (tile ?? "").split("/").map(Number);
  if (!(column < 2 ** zoom && row < 2 ** zoom)) return null;
  const corner = (x, y) => new library.MercatorCoordinate(x / 2 ** zoom, y / 2 ** zoom).toLngLat()
    .toArray();
  return [corner(column, row + 1), corner(column + 1, row)];
}

/** The bounds of the tiles of a zoom, by its statistics. */
function extent(level) {
  if (!level?.tiles) return undefined;
  const { zoom, rows, columns } = level;
  const [[west], [, north]] = boundsOf(`${zoom}/${columns[0]}/${rows[0]}`);
  const [[, south], [east]] = boundsOf(`${zoom}/${columns[1]}/${rows[1]}`);
  return [[west, south], [east, north]];
}

const within = (value, most) => Math.max(-most, Math.min(most, value));

const meet = ([[west, south], [east, north]], [[left, bottom], [right, top]]) =>
  west < right && east > left && south < top && north > bottom;

function outline(bounds) {
  const [[west, south], [east, north]] = bounds ?? [[], []];
  const ring = [[west, south], [east, south], [east, north], [west, north], [west, south]];
  return { type: "FeatureCollection", features: bounds
    ? [{ type: "Feature", properties: {}, geometry: { type: "LineString", coordinates: ring } }] : [] };
}
