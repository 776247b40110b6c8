// Formats values and makes elements.

const TIME = new Intl.DateTimeFormat(undefined, {
  hour: "2-digit", minute: "2-digit", second: "2-digit", hourCycle: "h23",
});
const NUMBER = new Intl.NumberFormat("en", {maximumFractionDigits: 3});

// From seconds since the Unix epoch: 14:03:07.
export const clock = (at) => TIME.format(new Date(at * 1000));

export const clockWithMilliseconds = (at) =>
  `${clock(at)}.${String(Math.floor((at % 1) * 1000)).padStart(3, "0")}`;

export const number = (value) => (typeof value === "number" ? NUMBER.format(value) : String(value));

export function element(name, properties = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(properties)) {
    if (key in made) made[key] = value;
    else made.setAttribute(key, value);
  }
  made.append(...children);
  return made;
}

export const labelsOf = (labels) =>
  Object.entries(labels).map(([key, value]) => `${key}=${value}`).join(" ") || "no labels";
