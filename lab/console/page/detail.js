// The details of a row of the timeline: the full text of its lines, or its request with the answer.

import {clockWithMilliseconds, element} from "./format.js";

const DEEDS = {
  cut: "The connection was cut instead of an answer.",
  garbage: "The answer was not HTTP.",
  silence: "There was no answer.",
};

export class Detail {
  #dialog = document.getElementById("detail");
  #title = document.getElementById("detail-title");
  #body = document.getElementById("detail-body");

  open(lines) {
    const [line] = lines;
    if (line.request !== null) {
      this.openRequest(line.request);
      return;
    }
    const texts = lines.map(({at, text}) => `${clockWithMilliseconds(at)}  ${text}`);
    this.#show(`${clockWithMilliseconds(line.at)} · ${line.category}`, lines.length > 1 ?
      element("pre", {tabIndex: 0}, texts.join("\n")) :
      element("p", {className: "full"}, line.text));
  }

  async openRequest(number) {
    const response = await fetch(`/api/requests/${number}`);
    const request = await response.json();
    if (request.error) {
      this.#show(`Request ${number}`, element("p", {}, request.error));
      return;
    }
    this.#show(`Request ${number} · ${clockWithMilliseconds(request.at)}`,
        ...partsOf(request));
  }

  #show(title, ...parts) {
    this.#title.textContent = title;
    this.#body.replaceChildren(...parts);
    this.#dialog.showModal();
  }
}

function* partsOf(request) {
  yield element("p", {className: "full"}, `${request.method} ${request.url}`);
  yield verdict(request.faults);
  yield element("h3", {}, "Headers");
  yield element("table", {className: "headers"}, element("tbody", {},
      ...request.headers.map(([name, value]) => element("tr", {},
          element("th", {scope: "row"}, name), element("td", {}, value)))));
  if (request.log) {
    yield element("h3", {}, `Data of the log, ${request.log.form}`);
    yield element("pre", {tabIndex: 0}, request.log.data);
  }
  yield element("h3", {}, "Body");
  yield element("pre", {tabIndex: 0}, request.body);
  yield* answerOf(request.answer);
}

function verdict(faults) {
  if (!faults.length) {
    return element("p", {className: "verdict good"}, "✓ Matches docs/cloud-api.yaml");
  }
  return element("div", {className: "verdict bad"}, "✗ Violates docs/cloud-api.yaml",
      element("ul", {}, ...faults.map((fault) => element("li", {}, fault))));
}

function* answerOf(answer) {
  if (!answer) {
    yield element("h3", {}, "No answer yet");
    return;
  }
  if (answer.act) {
    yield element("h3", {}, `After ${answer.after} ms`);
    yield element("p", {}, DEEDS[answer.act]);
    return;
  }
  yield element("h3", {}, `Answer ${answer.status} after ${answer.after} ms`);
  yield element("pre", {tabIndex: 0}, answer.body);
}
