// What was when: a lane for each thing, over the last hour. Nobody looked: the lane is hatched in grey, and says so.

import { MARKS, element } from "./picture.js";

const HOUR = 3600;
const LANE = 26, GAP = 6, FOOT = 22;
export const LANES = [["server", "server"], ["link", "internal link"], ["relay", "relay"], ["BU_STATE", "state"],
  ["EG_LINK_STATUS", "machine controller"], ["ARMED_RU", "armed unit"]];

// The pieces of a lane: { from, to, level, words }. `changes` are in order; `gaps` are [from, to] in which nobody watched.
export function pieces(key, changes, gaps, from, to) {
  const found = [];
  let now = { from, level: "unknown", words: "not watched" };
  const close = (when) => { if (when > now.from) found.push({ ...now, to: when }); };
  const events = [
    ...changes.filter((change) => change.key === key).map((change) => ({ at: Math.max(change.time, from), change })),
    ...gaps.filter(([, end]) => end > from).map(([begin]) => ({ at: Math.max(begin, from) })),
  ].sort((one, other) => one.at - other.at);
  for (const { at, change } of events) {
    close(Math.min(at, to));
    now = change ? { from: at, level: change.level, words: change.name || change.words }
      : { from: at, level: "unknown", words: "not watched" };
  }
  close(to);
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
  if (width > text.length * 7 + 6)
    group.append(element("text", { x: x + 4, y: y + 15 }, text));
  return group;
}

export const clock = (seconds) => new Date(seconds * 1000).toLocaleTimeString([], { hour12: false });

export function drawStrip(place, changes, gaps, now) {
  const width = Math.max(place.clientWidth, 280);
  const left = width < 560 ? 0 : 150;
  const pitch = LANE + GAP + (left ? 0 : 16);
  const height = LANES.length * pitch + FOOT;
  const from = now - HOUR, scale = (width - left) / HOUR;
  const svg = element("svg", { viewBox: `0 0 ${width} ${height}`, role: "img" });
  const spoken = [];
  for (let minutes = 60; minutes >= 0; minutes -= left ? 15 : 30) {
    const x = left + (60 - minutes) * 60 * scale;
    svg.append(element("line", { class: "tick", x1: x, x2: x, y1: 0, y2: height - FOOT }));
    svg.append(element("text", { class: "tick-name", x, y: height - 6, "text-anchor": minutes === 60 ? "start" : minutes ? "middle" : "end" },
      minutes ? `${minutes} min ago` : "now"));
  }
  LANES.forEach(([key, name], index) => {
    const y = index * pitch + (left ? 0 : 16);
    svg.append(element("text", { class: "lane-name", x: 0, y: left ? y + 17 : y - 4 }, name));
    const found = pieces(key, changes, gaps, from, now);
    for (const piece of found) svg.append(segment(piece, left + (piece.from - from) * scale, y, (piece.to - piece.from) * scale));
    const bad = found.filter((piece) => piece.level === "bad").length;
    spoken.push(`${name}: ${found.length ? found[found.length - 1].words : "unknown"}${bad ? `, bad ${bad} times` : ""}`);
  });
  svg.setAttribute("aria-label", `The last hour. ${spoken.join(". ")}.`);
  place.replaceChildren(svg);
}
