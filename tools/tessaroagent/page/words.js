// Small things that everything on the page is made of.

export const MARKS = { good: "✓", note: "•", warn: "▲", bad: "✕", unknown: "?" };

export const get = (id) => document.getElementById(id);

export function make(name, content, attributes = {}) {
  const made = document.createElement(name);
  if (content !== undefined) made.textContent = content;
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  return made;
}

// A mark for those who see; words say the same to others.
export const mark = (level) => make("span", `${MARKS[level]} `, { "aria-hidden": "true", "data-level": level });

export const sentence = (text) => text.charAt(0).toUpperCase() + text.slice(1);

export const counted = (number, one, more = `${one}s`) => `${number} ${Number(number) === 1 ? one : more}`;

export const clock = (seconds) => new Date(seconds * 1000).toLocaleTimeString([], { hourCycle: "h23" });

export const day = (seconds) => new Date(seconds * 1000).toLocaleDateString();

// A time as one says it at `now`: with its day, if that is another one.
export const moment = (seconds, now) => (day(seconds) === day(now) ? clock(seconds) : `${day(seconds)} ${clock(seconds)}`);
