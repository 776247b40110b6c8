// The timeline. Of up to ten thousand lines only the visible ones are in the document.

import {clockWithMilliseconds, element} from "./format.js";

const MOST_LINES = 10000;
// Extra rows above and below the visible ones, for smooth scrolling.
const SPARE_ROWS = 8;
// The shortest time between two announcements to screen readers, in milliseconds.
const ANNOUNCE_EVERY = 3000;
const CATEGORIES = {
  control: "Controls", cycle: "Cycles", https: "HTTPS", bus: "D-Bus", log: "Log",
  device: "Device", self: "Self",
};
const SIGNS = {info: "", warning: "!", error: "✗"};

export class Timeline {
  #lines = [];
  #shown = [];
  #rows = new Map();
  #hidden = new Set(["self"]);
  #following = true;
  #drawing = false;
  #unannounced = [];
  #open;
  #scroller = document.getElementById("scroller");
  #list = document.getElementById("lines");
  #latest = document.getElementById("latest");
  #filter = document.getElementById("filter");
  #announcer = document.getElementById("announcer");

  constructor(open) {
    this.#open = open;
    this.#addCategories();
    this.#filter.addEventListener("input", () => this.#choose());
    this.#scroller.addEventListener("scroll", () => this.#onScroll());
    new ResizeObserver(() => this.#draw()).observe(this.#scroller);
    this.#latest.addEventListener("click", () => {
      this.#follow(true);
      this.#scroller.focus();
    });
    setInterval(() => this.#announce(), ANNOUNCE_EVERY);
  }

  clear() {
    this.#lines = [];
    // Another server numbers its lines from the start.
    this.#rows.clear();
    this.#list.replaceChildren();
    this.#choose();
  }

  add(lines, {announce}) {
    if (!lines.length) return;
    this.#lines.push(...lines);
    if (announce) this.#unannounced.push(...lines.filter((line) => this.#isNews(line)));
    this.#shown.push(...lines.filter((line) => this.#isWanted(line)));
    this.#forget();
    this.#draw();
  }

  #isNews(line) {
    return line.category === "control" || line.severity === "error";
  }

  #forget() {
    const extra = this.#lines.length - MOST_LINES;
    if (extra <= 0) return;
    this.#lines.splice(0, extra);
    const oldest = this.#lines[0].number;
    const gone = this.#shown.findIndex((line) => line.number >= oldest);
    this.#shown.splice(0, gone < 0 ? this.#shown.length : gone);
    // Keeps the visible lines in place while the user reads older ones.
    if (!this.#following) this.#scroller.scrollTop -= gone * this.#rowHeight();
  }

  #isWanted(line) {
    if (this.#hidden.has(line.category)) return false;
    const text = this.#filter.value.toLowerCase();
    return !text || line.text.toLowerCase().includes(text);
  }

  #choose() {
    this.#shown = this.#lines.filter((line) => this.#isWanted(line));
    this.#follow(true);
  }

  #rowHeight() {
    return parseFloat(getComputedStyle(this.#list).getPropertyValue("--row"));
  }

  #onScroll() {
    const {scrollTop, scrollHeight, clientHeight} = this.#scroller;
    this.#follow(scrollHeight - scrollTop - clientHeight < this.#rowHeight());
  }

  #follow(following) {
    this.#following = following;
    this.#latest.hidden = following;
    this.#draw();
  }

  // At the next frame, once for all changes until then.
  #draw() {
    if (this.#drawing) return;
    this.#drawing = true;
    requestAnimationFrame(() => {
      this.#drawing = false;
      this.#render();
    });
  }

  #render() {
    const height = this.#rowHeight();
    this.#list.style.height = `${this.#shown.length * height}px`;
    if (this.#following) this.#scroller.scrollTop = this.#scroller.scrollHeight;
    const first = Math.max(0, Math.floor(this.#scroller.scrollTop / height) - SPARE_ROWS);
    const last = first + Math.ceil(this.#scroller.clientHeight / height) + 2 * SPARE_ROWS;
    const wanted = this.#shown.slice(first, last);
    const numbers = new Set(wanted.map((line) => line.number));
    for (const [number, row] of this.#rows) {
      if (!numbers.has(number)) {
        row.remove();
        this.#rows.delete(number);
      }
    }
    wanted.forEach((line, i) => this.#place(line, first + i, height));
  }

  #place(line, index, height) {
    let row = this.#rows.get(line.number);
    if (!row) {
      row = this.#makeRow(line);
      this.#rows.set(line.number, row);
      // In the order of the lines, for the Tab key.
      const next = [...this.#list.children].find((other) => other.dataset.number > line.number);
      this.#list.insertBefore(row, next ?? null);
    }
    row.style.transform = `translateY(${index * height}px)`;
    row.ariaPosInSet = index + 1;
    row.ariaSetSize = this.#shown.length;
  }

  #makeRow(line) {
    const at = element("time", {}, clockWithMilliseconds(line.at));
    const sign = element("span", {className: "sign", ariaLabel: line.severity},
        SIGNS[line.severity]);
    if (line.severity === "info") sign.ariaHidden = "true";
    else sign.setAttribute("role", "img");
    const button = element(
        "button", {type: "button", onclick: () => this.#open(line)},
        at, element("span", {className: "kind"}, CATEGORIES[line.category]), sign,
        element("span", {className: "text"}, line.text));
    const row = element("li", {className: `${line.severity} ${line.category}`}, button);
    row.dataset.number = line.number;
    return row;
  }

  #addCategories() {
    for (const [category, name] of Object.entries(CATEGORIES)) {
      const button = element("button", {type: "button", className: category}, name);
      const show = () => button.setAttribute("aria-pressed", !this.#hidden.has(category));
      button.addEventListener("click", () => {
        if (!this.#hidden.delete(category)) this.#hidden.add(category);
        show();
        this.#choose();
      });
      show();
      document.getElementById("categories").append(button);
    }
  }

  #announce() {
    const news = this.#unannounced.splice(0);
    if (!news.length) return;
    const others = news.length > 1 ? `, and ${news.length - 1} other lines` : "";
    this.#announcer.textContent = news.at(-1).text + others;
  }
}
