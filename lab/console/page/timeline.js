// The timeline. Of up to ten thousand lines only the visible ones are in the document.

import {clockWithMilliseconds, element, number} from "./format.js";

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
  // The rows: {number, first, latest, count}. A row has several lines if they are folded.
  #shown = [];
  // The rows that further lines can join, by the fold of their lines.
  #folds = new Map();
  // The element of each visible row, by the row's number.
  #rows = new Map();
  #hidden = new Set(["self"]);
  #following = true;
  // Where the last drawing scrolled to.
  #bottom = 0;
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
    this.#choose();
  }

  add(lines, {announce}) {
    if (!lines.length) return;
    this.#lines.push(...lines);
    if (announce) this.#unannounced.push(...lines.filter((line) => this.#isNews(line)));
    for (const line of lines) this.#place(line);
    this.#forget();
    this.#draw();
  }

  #place(line) {
    if (!line.fold) this.#folds.clear();
    if (!this.#isWanted(line)) return;
    // A reader who filters looks for single lines.
    const row = this.#filter.value ? null : this.#folds.get(line.fold);
    if (row) {
      row.latest = line;
      row.count += 1;
      line.row = row;
      return;
    }
    line.row = {number: line.number, first: line, latest: line, count: 1};
    this.#shown.push(line.row);
    if (line.fold) this.#folds.set(line.fold, line.row);
  }

  #isNews(line) {
    return line.category === "control" || line.severity === "error";
  }

  #forget() {
    const extra = this.#lines.length - MOST_LINES;
    if (extra <= 0) return;
    this.#lines.splice(0, extra);
    const oldest = this.#lines[0].number;
    const kept = this.#shown.findIndex((row) => row.latest.number >= oldest);
    const gone = kept < 0 ? this.#shown.length : kept;
    this.#shown.splice(0, gone);
    // Keeps the visible lines in place while the user reads older ones.
    if (!this.#following) this.#scroller.scrollTop -= gone * this.#rowHeight();
  }

  #isWanted(line) {
    if (this.#hidden.has(line.category)) return false;
    const text = this.#filter.value.toLowerCase();
    return !text || line.text.toLowerCase().includes(text);
  }

  #choose() {
    this.#shown = [];
    this.#folds.clear();
    // A row can have other lines than before.
    this.#rows.clear();
    this.#list.replaceChildren();
    for (const line of this.#lines) this.#place(line);
    this.#follow(true);
  }

  #rowHeight() {
    return parseFloat(getComputedStyle(this.#list).getPropertyValue("--row"));
  }

  #onScroll() {
    const {scrollTop, scrollHeight, clientHeight} = this.#scroller;
    // Only the user scrolls up; the end also moves when the list becomes lower.
    if (this.#following && scrollTop >= this.#bottom) return;
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
    if (this.#following) {
      this.#scroller.scrollTop = this.#scroller.scrollHeight;
      this.#bottom = this.#scroller.scrollTop;
    }
    const first = Math.max(0, Math.floor(this.#scroller.scrollTop / height) - SPARE_ROWS);
    const last = first + Math.ceil(this.#scroller.clientHeight / height) + 2 * SPARE_ROWS;
    const wanted = this.#shown.slice(first, last);
    const numbers = new Set(wanted.map((row) => row.number));
    for (const [shown, item] of this.#rows) {
      if (!numbers.has(shown)) {
        item.remove();
        this.#rows.delete(shown);
      }
    }
    wanted.forEach((row, i) => this.#renderRow(row, first + i, height));
  }

  #renderRow(row, index, height) {
    let item = this.#rows.get(row.number);
    if (!item) {
      item = this.#makeItem(row);
      this.#rows.set(row.number, item);
      // In the order of the lines, for the Tab key.
      const next = [...this.#list.children].find((other) => other.dataset.number > row.number);
      this.#list.insertBefore(item, next ?? null);
    }
    // Filled again in place, so that it keeps the focus.
    if (item.dataset.count !== String(row.count)) fill(item, row);
    item.style.transform = `translateY(${index * height}px)`;
    item.ariaPosInSet = index + 1;
    item.ariaSetSize = this.#shown.length;
  }

  #makeItem(row) {
    const line = row.first;
    const at = element("time", {}, clockWithMilliseconds(line.at));
    const sign = element("span", {className: "sign", ariaLabel: line.severity},
        SIGNS[line.severity]);
    if (line.severity === "info") sign.ariaHidden = "true";
    else sign.setAttribute("role", "img");
    const button = element(
        "button", {type: "button", onclick: () => this.#open(this.#linesOf(row))},
        at, element("span", {className: "kind"}, CATEGORIES[line.category]), sign,
        element("span", {className: "text"}));
    const item = element("li", {className: `${line.severity} ${line.category}`}, button);
    item.dataset.number = row.number;
    return item;
  }

  #linesOf(row) {
    return row.count === 1 ? [row.latest] : this.#lines.filter((line) => line.row === row);
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

// The latest line of a row, after the number of its lines.
function fill(item, row) {
  item.dataset.count = row.count;
  const count = element("b", {}, row.count > 1 ? `${number(row.count)} × ` : "");
  item.querySelector(".text").replaceChildren(count, row.latest.text);
}
