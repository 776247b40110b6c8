// Runs the controls, and shows their results.

const outcome = document.getElementById("outcome");

export async function press(control, fields) {
  showResult("idle", "Working…");
  try {
    const response = await fetch(`/api/controls/${control}`, {
      method: "POST", headers: {"Content-Type": "application/json"}, body: JSON.stringify(fields),
    });
    const {error} = await response.json();
    if (error) showResult("bad", error);
    else showResult("good", "Done");
  } catch {
    showResult("bad", "The lab does not respond");
  }
}

function showResult(level, text) {
  outcome.dataset.level = level;
  outcome.textContent = text;
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
  for (const form of document.querySelectorAll("form[data-control]")) {
    form.addEventListener("submit", (event) => {
      event.preventDefault();
      press(form.dataset.control, fieldsOf(form));
    });
  }
  const act = document.querySelector("[data-control=answer] [name=act]");
  const status = document.querySelector("[data-control=answer] [name=status]");
  const delay = document.querySelector("[data-control=answer] [name=delay]");
  act.addEventListener("change", () => {
    for (const input of [status, delay]) input.disabled = act.value !== "answer";
  });
  document.getElementById("copy-bus").addEventListener("click", async () => {
    const address = document.getElementById("bus-address");
    address.select();
    await navigator.clipboard.writeText(address.value);
    showResult("good", "Copied");
  });
}
