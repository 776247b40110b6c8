// An overview of the device: a tile for each precondition of uploads, and the next step.

import {press, resultPlace} from "./controls.js";
import {clock, element, number} from "./format.js";

const PROGRAMS = {
  daemon: "Daemon", bus: "System bus", larder: "Larder", tlsdate: "tlsdate",
  identity: "Identity provider", monitoring: "Monitoring service",
};
const TOKENS = {
  none: ["bad", "none"], requested: ["warning", "requested"], held: ["good", "held"],
  expired: ["warning", "expired"],
};
const CERTIFICATES = {stranger: "unknown authority", name: "another name"};

export class Glance {
  #next = document.getElementById("next");
  #step = null;

  constructor() {
    // A success shows itself: the next step, or none.
    this.#next.querySelector("button").addEventListener("click", () =>
      press(this.#step.control, this.#step.arguments, this.#next.querySelector("output"), ""));
  }

  takeAbout(about) {
    document.getElementById("bus-address").value = `export DBUS_SYSTEM_BUS_ADDRESS=${about.bus}`;
  }

  take(state) {
    const {up, counts, cycle, records} = state;
    this.#tile("daemon", up.daemon ? "good" : "bad",
        up.daemon ? "running" : `stopped${state.exitCode ? `, code ${state.exitCode}` : ""}`,
        `every ${state.interval} s`);
    this.#tile("registered", state.registered && up.larder ? "good" : "warning",
        up.larder ? state.deviceId || "not registered" : "Larder is down",
        state.deviceId && up.larder ? "registered" : "nothing is uploaded");
    this.#tile("clock", ...clockOf(state));
    this.#tile("token", ...TOKENS[state.token],
        state.provisioned ? "with a refresh token" : "no refresh token");
    this.#tile("cycle", cycle.level ?? "idle", cycle.outcome ?? "none yet", cycle.number ?
      `no. ${cycle.number} at ${clock(cycle.at + state.began)}${pendingOf(records.points)}` : "");
    this.#tile("points", ...recordsOf(records.points));
    this.#tile("logs", ...recordsOf(records.logs));
    this.#tile("requests", counts.flagged ? "bad" : "good", `${number(counts.requests)} sent`,
        counts.flagged ? `${counts.flagged} invalid` : "all valid");
    this.#showNext(state.next);
    this.#showPrograms(state);
    this.#showAnswers(state.answers);
    document.getElementById("load").textContent = state.load ?
      `Running: ${state.load.rate} points/s for ${state.load.seconds} s.` : "No load is running.";
  }

  #tile(name, level, text, more = "") {
    const tile = document.querySelector(`[data-tile=${name}]`);
    tile.dataset.level = level;
    const shown = tile.querySelector("dd");
    if (shown.dataset.shown === text + more) return;
    shown.dataset.shown = text + more;
    shown.replaceChildren(element("b", {}, text), element("small", {}, more));
  }

  #showNext(step) {
    if (JSON.stringify(step) === JSON.stringify(this.#step)) return;
    this.#step = step;
    this.#next.hidden = !step;
    if (!step) return;
    this.#next.querySelector("output").textContent = "";
    this.#next.querySelector("p").textContent = step.text;
    const button = this.#next.querySelector("button");
    button.textContent = step.press;
    button.hidden = !step.press;
  }

  #showPrograms(state) {
    const body = document.querySelector("#programs tbody");
    if (!body.children.length) {
      body.append(...Object.entries(PROGRAMS).flatMap(([key, name]) => programRows(key, name)));
    }
    for (const [program, name] of Object.entries(PROGRAMS)) {
      const row = body.querySelector(`[data-program=${program}]`);
      const isUp = state.up[program];
      const certificate = CERTIFICATES[state.certificates[program]];
      row.dataset.level = isUp ? (certificate ? "warning" : "good") : "bad";
      const text = isUp ? (certificate ? "bad certificate" : "up") : "down";
      row.querySelector("td").textContent = text;
      const button = row.querySelector("button");
      button.dataset.action = isUp ? "stop" : "start";
      button.textContent = isUp ? "Stop" : "Start";
      button.ariaLabel = `${button.textContent} ${name}`;
    }
  }

  #showAnswers(answers) {
    const parts = Object.entries(answers).map(([endpoint, does]) =>
      `${endpoint.replace("_", " ")}: ${does}`);
    document.getElementById("answers").textContent =
      parts.length ? `For all further requests: ${parts.join("; ")}.` : "All requests are accepted.";
  }
}

// The second row is for the result.
function programRows(program, name) {
  const place = resultPlace();
  const button = element("button", {type: "button", onclick: () =>
    press("program", {program, action: button.dataset.action}, place)});
  const row = element("tr", {}, element("th", {scope: "row"}, name), element("td"),
      element("td", {}, button));
  row.dataset.program = program;
  return [row, element("tr", {}, element("td", {colSpan: 3}, place))];
}

function clockOf({clock: {source, known}, up}) {
  if (known) return ["good", "from the network", "known to the daemon"];
  if (!up.tlsdate) return ["warning", "unknown", "tlsdate is down"];
  return source === "network" ? ["good", "from the network", "not requested yet"] :
    ["warning", "not set", "records are dropped"];
}

const pendingOf = (points) => (points?.pending ? `, ${number(points.pending)} pending` : "");

// The counters of the points or the logs, as the daemon publishes them. Records that wait for the
// next cycle are no warning.
function recordsOf(records) {
  if (!records) return ["idle", "unknown", "no status yet"];
  const drops = Object.entries(records.dropped);
  const waiting = records.pending + records.in_flight;
  const isHeld = waiting && records.held;
  const more = [`${number(waiting)} pending${isHeld ? `: ${records.held}` : ""}`,
      ...drops.map(([why, count]) => `${number(count)} dropped: ${why}`)];
  return [isHeld || drops.length ? "warning" : records.recorded ? "good" : "idle",
      `${number(records.accepted)} of ${number(records.recorded)} accepted`, more.join(", ")];
}
