// What was when: a lane for each thing, over the last minutes. Nobody looked: the lane is hatched in grey, and says so.

import { element } from "./picture.js";
import { MARKS, clock } from "./words.js";

const LANE = 26, GAP = 6, FOOT = 22;
export const LANES = [["server", "server"], ["link", "internal link"], ["relay", "relay"], ["BU_STATE", "state"],
  ["EG_LINK_STATUS", "machine controller"], ["ARMED_RU", "armed unit"]];
const OF_STATUS = ["BU_STATE", "EG_LINK_STATUS", "ARMED_RU"];

// The pieces of a lane: { from, to, level, words }. `changes` are in order; in `gaps` { from, to, id } nobody watched: what was
// found out after entry `id` may be about a time before the gap, and counts from its end on; without an `id`, everything does.
export function pieces(key, changes, gaps, from, to) {
  const unwatched = { level: "unknown", words: "not watched" };
  const shown = ({ level, name, words }) => ({ level, words: name || words });
  const mine = changes.filter((change) => change.key === key);
  const events = mine.map((change) => ({ at: change.time, now: shown(change) }));
  for (const gap of gaps) {
    events.push({ at: gap.from, now: unwatched });
    const found = mine.filter((change) => !(change.id <= gap.id) && change.time <= gap.to).pop();
    if (found) events.push({ at: gap.to, now: shown(found) });
  }
  events.sort((one, other) => one.at - other.at);
  const pieces = [];
  let begun = from, now = unwatched;
  for (const event of [...events, { at: to }]) {
    const at = Math.min(Math.max(event.at, from), to);
    if (at > begun) pieces.push({ ...now, from: begun, to: at });
    [begun, now] = [at, event.now];
  }
  return pieces;
}

// While the server is silent nothing is known of its status; what it said before holds when it answers again.
function silences(changes) {
  const found = [];
  for (const change of changes) {
    if (change.key !== "server") continue;
    const last = found[found.length - 1];
    if (last) last.to = Math.min(last.to, change.time);
    if (change.new === "silent") found.push({ from: change.time, to: Infinity });
  }
  return found;
}

function segment(piece, x, y, width) {
  const group = element("g", { class: "segment", "data-level": piece.level });
  const title = `${piece.words}, ${clock(piece.from)} to ${clock(piece.to)}`;
  group.append(element("title", {}, title));
  group.append(element("rect", { class: "fill", x, y, width: Math.max(width, 2), height: LANE }));
  // Bad stands on a thick base, warnings on a thin one: heights, not only colours.
  const base = { bad: 9, warn: 5, good: 2 }[piece.level] || 0;
  if (base) group.append(element("rect", { class: "base", x, y: y + LANE - base, width: Math.max(width, 2), height: base }));
  const text = `${MARKS[piece.level]} ${piece.words}`;
  if (width > text.length * 7.8 + 8)
    group.append(element("text", { x: x + 4, y: y + 15 }, text));
  return group;
}

// "The last hour", or less of it.
export const title = (span) => `The last ${span === 3600 ? "hour" : span === 60 ? "minute" : `${span / 60} minutes`}`;

const times = (count) => (count === 1 ? "once" : `${count} times`);

function drawTicks(svg, left, width, height, span) {
  const ticks = !left ? 2 : span === 300 ? 5 : span === 60 ? 6 : 4;
  for (let tick = ticks; tick >= 0; tick -= 1) {
    const x = left + (1 - tick / ticks) * (width - left), ago = (span * tick) / ticks;
    const anchor = tick === ticks ? "start" : tick ? "middle" : "end";
    svg.append(element("line", { class: "tick", x1: x, x2: x, y1: 0, y2: height - FOOT }),
      element("text", { class: "tick-name", x, y: height - 6, "text-anchor": anchor },
        !ago ? "now" : ago % 60 ? `${ago} s ago` : `${ago / 60} min ago`));
  }
}

export function drawStrip(place, changes, gaps, now, span) {
  const width = Math.max(place.clientWidth, 280);
  const left = width < 560 ? 0 : 150;
  const pitch = LANE + GAP + (left ? 0 : 16);
  const height = LANES.length * pitch + FOOT;
  const from = now - span, scale = (width - left) / span;
  const svg = element("svg", { viewBox: `0 0 ${width} ${height}`, role: "img" });
  const spoken = [], silent = [...gaps, ...silences(changes)];
  drawTicks(svg, left, width, height, span);
  LANES.forEach(([key, name], index) => {
    const y = index * pitch + (left ? 0 : 16);
    svg.append(element("text", { class: "lane-name", x: 0, y: left ? y + 17 : y - 4 }, name));
    const found = pieces(key, changes, OF_STATUS.includes(key) ? silent : gaps, from, now);
    for (const piece of found) svg.append(segment(piece, left + (piece.from - from) * scale, y, (piece.to - piece.from) * scale));
    const bad = found.filter((piece) => piece.level === "bad").length;
    spoken.push(`${name}: ${found.length ? found[found.length - 1].words : "unknown"}${bad ? `, bad ${times(bad)}` : ""}`);
  });
  svg.setAttribute("aria-label", `${title(span)}. ${spoken.join(". ")}.`);
  place.replaceChildren(svg);
}
