// The panels beside the charts: logs, the daemon's own metrics, and its log.

import {clock, clockWithMilliseconds, element, number} from "./format.js";

const MOST_LOGS = 100;
const MOST_LOG_LINES = 300;
const SIGNS = {info: "·", warning: "!", error: "✗"};

export class Logs {
  #panel = document.getElementById("logs");
  #list = this.#panel.querySelector("ol");
  #open;

  constructor(open) {
    this.#open = open;
  }

  clear() {
    this.#list.replaceChildren();
    this.#panel.querySelector(".empty").hidden = false;
  }

  add(logs) {
    if (!logs.length) return;
    this.#panel.querySelector(".empty").hidden = true;
    for (const log of logs) this.#list.prepend(this.#row(log));
    while (this.#list.children.length > MOST_LOGS) this.#list.lastChild.remove();
  }

  #row(log) {
    const head = element("summary", {}, element("time", {}, clock(log.at)), " ",
        element("span", {className: "kind"}, log.kind), " ", log.type || "(no type)",
        element("small", {}, ` ${log.form}`));
    const button = element("button", {type: "button", onclick: () => this.#open(log.request)},
        `Request ${log.request}`);
    return element("li", {}, element("details", {open: true}, head,
        element("pre", {}, log.data), button));
  }
}

export class Samples {
  #panel = document.getElementById("samples");
  #shown = "";

  clear() {}

  take(samples) {
    const text = JSON.stringify(samples);
    if (text === this.#shown) return;
    this.#shown = text;
    const any = Object.keys(samples).length > 0;
    this.#panel.querySelector(".empty").hidden = any;
    this.#panel.querySelector("table").hidden = !any;
    const rows = Object.entries(samples).sort().map(([name, {last, least, most, count}]) =>
      element("tr", {}, element("th", {scope: "row"}, ...breakable(name)),
          ...[last, least, most, count].map((value) => element("td", {}, number(value)))));
    this.#panel.querySelector("tbody").replaceChildren(...rows);
  }
}

// A long name may wrap before each of its words.
function breakable(name) {
  const words = name.replace("AccessPoint.", "").split(/(?=[A-Z])/);
  return words.flatMap((word, i) => (i ? [element("wbr"), word] : [word]));
}

export class DaemonLog {
  #list = document.querySelector("#daemon-log ol");

  clear() {
    this.#list.replaceChildren();
  }

  add(lines) {
    for (const line of lines.slice(-MOST_LOG_LINES)) {
      this.#list.append(element("li", {className: line.severity},
          element("time", {}, clockWithMilliseconds(line.at)),
          element("span", {className: "sign", title: line.severity}, SIGNS[line.severity]),
          element("span", {}, line.text)));
    }
    while (this.#list.children.length > MOST_LOG_LINES) this.#list.firstChild.remove();
  }
}

// Selects tabs by mouse and by arrow keys.
export function wireTabs() {
  const tabs = [...document.querySelectorAll("[role=tab]")];
  const choose = (chosen) => {
    for (const tab of tabs) {
      const isChosen = tab === chosen;
      tab.setAttribute("aria-selected", isChosen);
      tab.tabIndex = isChosen ? 0 : -1;
      document.getElementById(tab.getAttribute("aria-controls")).hidden = !isChosen;
    }
  };
  tabs.forEach((tab, i) => {
    tab.addEventListener("click", () => choose(tab));
    tab.addEventListener("keydown", (event) => {
      const step = {ArrowRight: 1, ArrowLeft: -1}[event.key];
      if (!step) return;
      const next = tabs[(i + step + tabs.length) % tabs.length];
      choose(next);
      next.focus();
    });
  });
}
