// Runs the controls, and shows the result of each next to its button.

import {element} from "./format.js";

// Where the latest result is.
let latest = null;

export const resultPlace = () => element("output", {className: "result"});

// `done` is the text after a success.
export async function press(control, fields, place, done = "Done") {
  showResult(place, "idle", "Working…");
  try {
    const response = await fetch(`/api/controls/${control}`, {
      method: "POST", headers: {"Content-Type": "application/json"}, body: JSON.stringify(fields),
    });
    const {error} = await response.json();
    if (error) showResult(place, "bad", error);
    else showResult(place, "good", done);
  } catch {
    showResult(place, "bad", "The lab does not respond");
  }
}

function showResult(place, level, text) {
  if (latest && latest !== place) latest.textContent = "";
  latest = place;
  place.dataset.level = level;
  place.textContent = text;
  place.scrollIntoView({block: "nearest"});
}

function fieldsOf(form) {
  const fields = {};
  for (const input of form.elements) {
    if (!input.name) continue;
    const isNumber = input.type === "number" || "number" in input.dataset;
    fields[input.name] = isNumber ? Number(input.value) : input.value;
  }
  return fields;
}

export function wireControls() {
  // The timeline is below them on a narrow screen, where they start closed.
  if (matchMedia("(max-width: 700px)").matches) {
    for (const group of document.querySelectorAll("#controls details")) group.open = false;
  }
  for (const form of document.querySelectorAll("form[data-control]")) {
    form.append(resultPlace());
    form.addEventListener("submit", (event) => {
      event.preventDefault();
      // The button of a form without fields is in another form.
      const visible = event.submitter?.closest("form") ?? form;
      press(form.dataset.control, fieldsOf(form), visible.querySelector("output"));
    });
  }
  const act = document.querySelector("[data-control=answer] [name=act]");
  const status = document.querySelector("[data-control=answer] [name=status]");
  const delay = document.querySelector("[data-control=answer] [name=delay]");
  act.addEventListener("change", () => {
    for (const input of [status, delay]) input.disabled = act.value !== "answer";
  });
  const copied = document.getElementById("copied");
  document.getElementById("copy-bus").addEventListener("click", async () => {
    const address = document.getElementById("bus-address");
    address.select();
    await navigator.clipboard.writeText(address.value);
    showResult(copied, "good", "Copied");
  });
}
