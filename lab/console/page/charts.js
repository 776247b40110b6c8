// A chart of the uploaded points of each metric, with a line per label set.

import {clock, element, labelsOf, number} from "./format.js";
import uPlot from "/third_party/uPlot/uPlot.esm.js";

const MOST_METRICS = 24;
const MOST_SERIES = 12;
const MOST_POINTS = 300;
const HEIGHT = 130;
// New points are drawn together, in milliseconds.
const DRAW_EVERY = 250;
const COLORS = 6;
// The dashes of a line, in pixels. Each line has shorter ones than the line below it, which
// therefore remains visible where both have the same values.
const DASH_PERIOD = 24;
const dashOf = (i) => DASH_PERIOD * 0.75 ** i;
// A line is interrupted where points are missing: for this many times the usual distance of its
// points, and at least so many seconds.
const GAP_FACTOR = 4;
const LEAST_GAP = 2;
// uPlot's mode by which a line ends at its last point before a gap, also if others have points in it.
const WHOLE_GAP = 2;
// The shortest time on the axis, in seconds, and the distances of its labels: whole seconds.
const LEAST_SPAN = 10;
const TIME_STEPS = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 21600, 86400];

const style = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

class Chart {
  #series = new Map();
  #plot = null;
  #omitted = 0;
  #picture = element("div", {className: "picture"});
  #legend = element("tbody");
  #caption;

  constructor(name) {
    this.name = name;
    this.#caption = element("p", {className: "omitted", hidden: true});
    this.#picture.setAttribute("role", "img");
    const table = element("table", {}, element("caption", {className: "unseen"},
        `Latest points of ${name}`), this.#legend);
    this.element = element("article", {className: "chart"}, element("h3", {}, name),
        this.#picture, table, this.#caption);
  }

  add(point) {
    const key = labelsOf(point.labels);
    let series = this.#series.get(key);
    if (!series) {
      if (this.#series.size >= MOST_SERIES) {
        this.#omitted += 1;
        return;
      }
      series = {at: [], values: [], latest: null};
      this.#series.set(key, series);
    }
    series.latest = point;
    if (typeof point.value === "string" || point.value === null) return;
    series.at.push(point.at);
    series.values.push(Number(point.value));
    if (series.at.length > MOST_POINTS) {
      series.at.shift();
      series.values.shift();
    }
  }

  draw() {
    this.#drawLegend();
    // With the numbers that they have in the legend.
    const drawn = [...this.#series.values()].map((series, i) => ({series, i}))
      .filter(({series}) => series.at.length);
    this.#picture.hidden = !drawn.length;
    if (!drawn.length) return;
    const data = uPlot.join(drawn.map(({series}) => withGaps(inOrder(series))),
        drawn.map(() => [WHOLE_GAP, WHOLE_GAP]));
    if (this.#plot && this.#plot.series.length === data.length) {
      this.#plot.setData(data);
      return;
    }
    this.restyle();
    this.#plot = new uPlot(this.#options(drawn.map(({i}) => i)), data, this.#picture);
  }

  // The next `draw` uses the current colours.
  restyle() {
    this.#plot?.destroy();
    this.#plot = null;
  }

  resize() {
    this.#plot?.setSize({width: this.#picture.clientWidth, height: HEIGHT});
  }

  #drawLegend() {
    const rows = [...this.#series].map(([key, {latest}], i) => element("tr", {},
        element("th", {scope: "row"}, swatch(i), key),
        element("td", {}, number(latest.value ?? "not a number")),
        element("td", {}, element("time", {}, clock(latest.at)))));
    this.#legend.replaceChildren(...rows);
    this.#caption.hidden = !this.#omitted;
    this.#caption.textContent = `${this.#omitted} points of further label sets are not drawn`;
    const values = [...this.#series].map(([key, {latest}]) => `${key} ${number(latest.value)}`);
    this.#picture.ariaLabel = `Chart of ${this.name}; latest: ${values.join(", ")}`;
  }

  #options(numbers) {
    const axis = {
      stroke: style("--muted"), font: "11px system-ui", grid: {stroke: style("--line"), width: 1},
      ticks: {show: false},
    };
    // A point is larger than those drawn over it.
    const lines = numbers.map((i, k) => ({
      stroke: style(`--c${i % COLORS}`), width: 1.75, dash: [dashOf(i), DASH_PERIOD - dashOf(i)],
      points: {show: (plot) => plot.data[0].length < 40,
        filter: (plot, one, all) => (all ? null : lonePoints(plot.data[one])),
        size: 5 + 3 * Math.min(numbers.length - 1 - k, 3)},
    }));
    return {
      width: this.#picture.clientWidth || 300, height: HEIGHT, legend: {show: false},
      cursor: {show: false}, padding: [8, 28, 0, 0], series: [{}, ...lines],
      scales: {
        x: {range: (_, least, most) => [Math.min(least, most - LEAST_SPAN), most]},
        y: {range: (_, least, most) => withRoom(least, most)},
      },
      axes: [
        {...axis, size: 24, space: 80, incrs: TIME_STEPS, values: (_, times) => times.map(clock)},
        {...axis, size: 46, space: 28, values: (_, values) => values.map(number)},
      ],
    };
  }
}

function withRoom(least, most) {
  const room = (most - least || Math.abs(most) || 1) * 0.1;
  return [least - room, most + room];
}

// Points may arrive late, but a chart needs ascending times.
function inOrder({at, values}) {
  const order = at.map((_, i) => i).sort((a, b) => at[a] - at[b]);
  return [order.map((i) => at[i]), order.map((i) => values[i])];
}

// With an empty value in the middle of each gap; where only other lines have a point, uPlot draws on.
function withGaps([at, values]) {
  const distances = at.slice(1).map((one, i) => one - at[i]);
  const usual = distances.toSorted((a, b) => a - b)[distances.length >> 1];
  const gap = Math.max(LEAST_GAP, GAP_FACTOR * usual);
  const made = [[], []];
  at.forEach((one, i) => {
    if (i && distances[i - 1] > gap) {
      made[0].push(one - distances[i - 1] / 2);
      made[1].push(null);
    }
    made[0].push(one);
    made[1].push(values[i]);
  });
  return made;
}

// The positions of points without a neighbour, which no line shows.
function lonePoints(values) {
  const own = [...values.entries()].filter(([, value]) => value !== undefined);
  const isPoint = (j) => (own[j]?.[1] ?? null) !== null;
  return own.filter((_, j) => isPoint(j) && !isPoint(j - 1) && !isPoint(j + 1)).map(([i]) => i);
}

function swatch(i) {
  const made = element("i", {className: `swatch c${i % COLORS}`});
  made.style.setProperty("--dash", `${dashOf(i)}px`);
  return made;
}

export class Charts {
  #charts = new Map();
  #changed = new Set();
  #panel = document.getElementById("metrics");
  #empty = this.#panel.querySelector(".empty");

  constructor() {
    setInterval(() => this.#draw(), DRAW_EVERY);
    new ResizeObserver(() => this.#charts.forEach((chart) => chart.resize())).observe(this.#panel);
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
      for (const chart of this.#charts.values()) {
        chart.restyle();
        this.#changed.add(chart);
      }
    });
  }

  clear() {
    for (const chart of this.#charts.values()) chart.element.remove();
    this.#charts.clear();
    this.#changed.clear();
    this.#empty.hidden = false;
  }

  add(points) {
    for (const point of points) {
      const chart = this.#charts.get(point.metric) ?? this.#make(point.metric);
      if (!chart) continue;
      chart.add(point);
      this.#changed.add(chart);
    }
  }

  #make(name) {
    this.#empty.hidden = true;
    if (this.#charts.size >= MOST_METRICS) {
      this.#empty.hidden = false;
      this.#empty.textContent = `Only the first ${MOST_METRICS} metrics are drawn.`;
      return null;
    }
    const chart = new Chart(name);
    this.#charts.set(name, chart);
    this.#panel.append(chart.element);
    return chart;
  }

  #draw() {
    if (this.#panel.hidden) return;
    for (const chart of this.#changed) chart.draw();
    this.#changed.clear();
  }
}
