// Passes the changes of the device to the parts of the page.

import {Charts} from "./charts.js";
import {wireControls} from "./controls.js";
import {Detail} from "./detail.js";
import {Glance} from "./glance.js";
import {DaemonLog, Logs, Samples, wireTabs} from "./panels.js";
import {Timeline} from "./timeline.js";

const detail = new Detail();
const timeline = new Timeline((lines) => detail.open(lines));
const glance = new Glance();
const parts = {
  charts: new Charts(),
  logs: new Logs((number) => detail.openRequest(number)),
  samples: new Samples(),
  daemonLog: new DaemonLog(),
};

function take(news) {
  if (news.first) {
    for (const part of [timeline, ...Object.values(parts)]) part.clear();
    glance.takeAbout(news.about);
  }
  glance.take(news.state);
  timeline.add(news.lines, {announce: !news.first});
  parts.charts.add(news.points);
  parts.logs.add(news.logs);
  parts.samples.take(news.state.samples);
  parts.daemonLog.add(news.lines.filter((line) => line.category === "log"));
}

const connection = document.getElementById("connection");

function showConnection(level, text) {
  connection.dataset.level = level;
  connection.textContent = text;
}

// The browser reconnects by itself; each connection begins with the whole state.
const events = new EventSource("/api/events");
events.onopen = () => showConnection("good", "Live");
events.onerror = () => showConnection("bad", "Not connected; retrying");
events.onmessage = (message) => take(JSON.parse(message.data));

wireTabs();
wireControls();
