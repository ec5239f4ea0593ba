// The installation as a picture. Each thing has a mark, words and a colour that say the same; the drawing as a whole has a
// description for those who do not see it.

import { MARKS } from "./words.js";

const SPACE = "http://www.w3.org/2000/svg";

// Where things stand, on a wide screen and on a narrow one: x, y, width, height of the boxes.
const WIDE = {
  size: [960, 400],
  controller: [10, 30, 220, 120], unit: [370, 15, 220, 150], machine: [730, 30, 220, 120],
  relay: [10, 265, 220, 120], remotes: [730, 265, 220, 120],
};
const NARROW = {
  size: [380, 656],
  controller: [8, 8, 170, 130], machine: [202, 8, 170, 130], unit: [80, 235, 220, 150],
  relay: [8, 490, 170, 158], remotes: [202, 490, 170, 158],
};

export function element(name, attributes = {}, ...children) {
  const made = document.createElementNS(SPACE, name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  made.append(...children);
  return made;
}

function lines(text, width, size) {
  const most = Math.floor(width / (size * 0.56)), longest = Math.floor(width / (size * 0.7));
  const found = [""];
  for (const word of text.match(new RegExp(`[^ ]{1,${longest}}`, "g")) ?? []) {
    const last = found[found.length - 1];
    if (last && last.length + word.length + 1 > most) found.push(word);
    else found[found.length - 1] = last ? `${last} ${word}` : word;
  }
  return found;
}

function texts(group, kind, content, box, top, size) {
  for (const line of content) {
    group.append(element("text", { class: kind, x: box[0] + box[2] / 2, y: top, "text-anchor": "middle" }, line));
    top += size * 1.25;
  }
  return top;
}

function node(box, thing) {
  const group = element("g", { class: "node", "data-level": thing.level, id: `node-${thing.id}` });
  group.append(element("rect", { x: box[0], y: box[1], width: box[2], height: box[3], rx: 10 }));
  let top = texts(group, "name", lines(thing.name, box[2] - 16, 17), box, box[1] + 26, 17);
  top = texts(group, "words", lines(`${MARKS[thing.level]} ${thing.words}`, box[2] - 16, 15), box, top + 2, 15);
  for (const more of thing.more || []) top = texts(group, "more", lines(more, box[2] - 16, 13), box, top + 1, 13);
  return group;
}

function edge(from, to) {
  // From the middle of one box to the middle of the other, cut at their borders.
  const [ax, ay, bx, by] = [from[0] + from[2] / 2, from[1] + from[3] / 2, to[0] + to[2] / 2, to[1] + to[3] / 2];
  const cut = (x, y, dx, dy, box) => {
    const part = Math.min(Math.abs(box[2] / 2 / (dx || 1e-9)), Math.abs(box[3] / 2 / (dy || 1e-9)));
    return [x + dx * part, y + dy * part];
  };
  return [...cut(ax, ay, bx - ax, by - ay, from), ...cut(bx, by, ax - bx, ay - by, to)];
}

function link(from, to, thing, narrow) {
  const [x1, y1, x2, y2] = edge(from, to);
  const group = element("g", { class: "link", "data-level": thing.level });
  group.append(element("line", { x1, y1, x2, y2 }));
  // Its name above the line and its state below; beside a line that is not level, where there is room.
  const outside = Math.sign(from[0] + from[2] / 2 - to[0] - to[2] / 2);
  const side = y1 === y2 ? 0 : outside * (narrow ? 62 : -88);
  const x = (x1 + x2) / 2 + side, middle = (y1 + y2) / 2 + (side && !narrow ? 8 : 0);
  group.append(element("text", { class: "link-name", x, y: middle - 9, "text-anchor": "middle" }, thing.link));
  lines(`${MARKS[thing.level]} ${thing.state}`, 124, 13.5).forEach((line, row) =>
    group.append(element("text", { x, y: middle + 20 + 17 * row, "text-anchor": "middle" }, line)));
  return group;
}

// Draws things = { unit, controller, machine, remotes, relay }, each { id, name, words, level, more, link }.
export function draw(place, things, narrow) {
  const plan = narrow ? NARROW : WIDE;
  const svg = element("svg", { viewBox: `0 0 ${plan.size[0]} ${plan.size[1]}`, role: "img" });
  const spoken = Object.values(things).map((thing) => `${thing.name}: ${thing.words}.`).join(" ");
  svg.setAttribute("aria-label", `The installation. ${spoken}`);
  for (const key of ["controller", "machine", "relay", "remotes"])
    svg.append(link(plan[key], plan.unit, things[key], narrow));
  for (const [key, thing] of Object.entries(things)) svg.append(node(plan[key], thing));
  place.replaceChildren(svg);
}
