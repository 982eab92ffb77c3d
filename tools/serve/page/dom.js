// Making elements, and numbers as people read them.

/** An element: h("a", { href, class, onclick, ... }, children...); null children are left out. */
export function h(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value === null || value === undefined || value === false) continue;
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else element.setAttribute(name, value === true ? "" : value);
  }
  element.append(...children.flat().filter((child) => child !== null && child !== undefined));
  return element;
}

const units = ["B", "kB", "MB", "GB", "TB", "PB"];

/** "1.2 MB", as the command writes it. */
export function bytes(count) {
  let unit = 0;
  let value = count;
  while (value >= 1000 && unit + 1 < units.length) {
    value /= 1000;
    unit += 1;
  }
  return `${unit > 0 && value < 100 ? value.toFixed(1) : Math.round(value)} ${units[unit]}`;
}

/** 1234567 as "1 234 567", with spaces that do not break. */
export const count = (number) => String(number).replace(/\B(?=(\d{3})+$)/g, "\u202f");

/** "1 tile", "2 tiles" */
export const plural = (number, word) => `${count(number)} ${word}${number === 1 ? "" : "s"}`;

/** A custom property of the style sheet, such as a colour, as it holds now. */
export const token = (name) =>
  getComputedStyle(document.documentElement).getPropertyValue(name).trim();
