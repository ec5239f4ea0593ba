// The unit's page: draws what the agent tells, and says so plainly when the agent is lost.

import { showControl } from "./control.js";
import { draw } from "./picture.js";
import { LANES, drawStrip, title } from "./strip.js";
import { begin, unit, unitNow } from "./watch.js";
import { MARKS, clock, counted, day, get, make, mark, moment, sentence } from "./words.js";

const HOUR = 3600;
const MOST_EVENTS = 60, MOST_CHANGES = 200, MOST_NAMED = 3;
const LANE_NAMES = new Map(LANES);
const LEVELS = { good: "as it should be", note: "neither good nor bad", warn: "look", bad: "bad", unknown: "not known" };

const narrow = matchMedia("(max-width: 40rem)");
let frame = 0, timer = null, spanChosen = false;

const isLive = () => unit.state === "live";
const level = (key) => unit.values[key]?.level || "unknown";
const words = (key) => unit.values[key]?.words || "unknown";
const value = (key) => unit.values[key]?.value ?? null;

// Of a silent server, and of a log that nobody follows, the agent has only what was known last.
const known = (key) => value(key) !== null && !unit.beat.stale?.includes(key);

// --- when it is shown -------------------------------------------------------------------------------------------------

function later() {
  if (timer !== null) return;
  const now = () => {
    cancelAnimationFrame(frame);
    clearTimeout(timer);
    timer = null;
    show();
  };
  frame = requestAnimationFrame(now);
  // A page in the background gets no frames, and must not save them up; what it says must be true all the same.
  timer = setTimeout(now, 150);
}

function show() {
  document.body.classList.toggle("stale", !isLive());
  get("main").hidden = unit.state === "locked";
  get("login").hidden = unit.state !== "locked";
  showConnection();
  showProblems();
  showControl();
  if (unit.state === "locked") return;
  const picture = [things(), narrow.matches];
  once(get("drawing"), picture, () => draw(get("drawing"), ...picture));
  showStrip();
  showChanges();
  showEvents();
  showValues();
  get("figures").textContent = figures();
}

// Builds what a place shows when that is another thing than before: who reads or selects it is not disturbed each second.
function once(place, content, build) {
  const text = JSON.stringify(content);
  if (place.dataset.shown === text) return;
  place.dataset.shown = text;
  build();
}

// What is read aloud when it changes, and not when it is only said again.
function say(id, text) {
  if (get(id).textContent !== text) get(id).textContent = text;
}

function replace(list, entries, build) {
  once(list, [day(unitNow()), ...entries.map(({ id, time }) => [id, time])], () => list.replaceChildren(...entries.map(build)));
}

// --- the picture ------------------------------------------------------------------------------------------------------

// The things of the installation, as the picture wants them.
function things() {
  const all = { unit: unitItself(), controller: controller(), machine: machine(), relay: relay(), remotes: remotes() };
  for (const [id, thing] of Object.entries(all)) {
    thing.id = id;
    if (!isLive()) Object.assign(thing, { level: "unknown", state: "not known now", words: `was: ${thing.words}` });
  }
  return all;
}

function status(key) {
  if (known(key)) return { words: words(key), level: level(key) };
  return { words: value(key) === null ? "unknown" : `last known: ${words(key)}`, level: "unknown" };
}

function unitItself() {
  const name = known("BU_ID") ? `Base unit ${value("BU_ID")}` : "Base unit";
  if (value("server") !== "answers")
    return { name, words: `server ${words("server")}`, level: value("server") ? "bad" : "unknown" };
  const armed = !known("ARMED_RU") || value("ARMED_RU") === "" ? "armed unit: unknown"
    : value("ARMED_RU") === "0" ? "no unit is armed" : `unit ${value("ARMED_RU")} is armed`;
  const state = known("BU_STATE") ? unit.values.BU_STATE.name : "";
  return { name, ...status("BU_STATE"), more: [armed, state].filter(Boolean) };
}

function controller() {
  const state = !known("link") ? "unknown" : value("link") === "NO_BI_LINK" ? "no link" : words("link");
  return { name: "Base controller", ...status("link"), link: "internal link", state };
}

const machine = () => ({ name: "Machine controller", ...status("EG_LINK_STATUS"), link: "Ethernet",
  state: known("EG_LINK_STATUS") ? words("EG_LINK_STATUS") : "unknown" });

const relay = () => ({ name: "Machine stop", words: words("relay"), level: level("relay"), link: "relay",
  state: value("relay") ?? "unknown" });

// As many as a box of the picture can hold; the table has them all.
const someOf = (all) => (all.length > MOST_NAMED + 1 ? `${all.slice(0, MOST_NAMED).join(", ")} and ${all.length - MOST_NAMED} more`
  : all.join(", "));

function remotes() {
  const count = value("units"), fallback = known("fallback") && value("fallback");
  const thing = { name: "Remote units", link: "remote link", words: "unknown", level: "unknown", state: "unknown", more: [] };
  if (count !== null) {
    thing.words = counted(count === "0" ? "no" : count, "connection");
    [thing.level, thing.state] = fallback ? ["warn", "by fallback"]
      : count === "0" ? ["note", "nobody there"] : ["good", "by TCP"];
  }
  if (fallback) thing.more.push(`on the fallback: ${someOf(fallback.split(", "))}`);
  if (known("UNARMED_RUs")) thing.more.push(`${value("UNARMED_RUs")} not armed`);
  return thing;
}

// --- the agent, and what is wrong with watching -----------------------------------------------------------------------

function connection() {
  if (isLive()) return unit.beat.healthy ? ["good", "live"] : ["bad", "live, the unit is not"];
  return { connecting: ["unknown", "connecting"], lost: ["bad", "agent lost"], locked: ["warn", "locked"] }[unit.state];
}

function showConnection() {
  const [how, text] = connection(), shown = things().unit;
  const name = value("BU_ID") ? `Base unit ${value("BU_ID")}` : "Base unit";
  get("connection").dataset.level = how;
  get("connection").firstElementChild.textContent = MARKS[how];
  get("connection-words").textContent = text;
  get("lost").hidden = unit.state !== "lost";
  if (unit.state === "lost")
    say("lost", `The agent is lost since ${moment(unit.since / 1000, Date.now() / 1000)}. `
      + "What stands below is what was known then, not what is. Trying again …");
  get("title").textContent = name;
  // The title is all that is seen of a page in the background: its mark is the unit's.
  document.title = isLive() ? `${MARKS[shown.level]} ${name}: ${shown.words}` : `${MARKS[how]} ${name}: ${text}`;
  say("summary", isLive() ? `${shown.words}; machine stop ${words("relay")}` : text);
}

function showProblems() {
  const problems = isLive() ? unit.beat.problems || [] : [];
  const list = get("problems");
  list.hidden = !problems.length;
  once(list, problems, () => list.replaceChildren(...problems.map((problem) => {
    const item = make("li", undefined, { class: "problem", "data-serious": problem.serious });
    item.append(make("strong", `${problem.serious ? MARKS.bad : MARKS.warn} ${sentence(problem.text)}`),
      make("span", `What to do: ${problem.todo}`));
    return item;
  })));
}

// --- what was when ----------------------------------------------------------------------------------------------------

function gaps() {
  // From the end of one agent to the beginning of the next.
  const found = unit.changes.filter((change) => change.key === "agent" && change.last)
    .map((change) => ({ from: change.last, to: change.time, id: change.id }));
  if (unit.state === "lost") found.push({ from: (unit.offset + unit.heard) / 1000, to: Infinity, id: Infinity });
  return found;
}

function span(all, now) {
  const chosen = get("span");
  if (!spanChosen && all.length) {
    // As much as there is to see, until somebody chooses.
    const watched = now - Math.min(...all.map((change) => change.time));
    const enough = ["60", "300", "900", "3600"].find((seconds) => watched < Number(seconds)) ?? "3600";
    if (chosen.value !== enough) chosen.value = enough;
  }
  return Number(chosen.value);
}

function showStrip() {
  const all = [...unit.before, ...unit.changes], now = unitNow(), shown = span(all, now);
  get("strip-title").textContent = title(shown);
  // It moves by a point at a time: what it says under a pointer would be gone before it is read.
  const strip = get("strip"), point = Math.floor(now * strip.clientWidth / shown);
  once(strip, [point, strip.clientWidth, shown, all.length, all.at(-1)?.id, unit.state],
    () => drawStrip(strip, all, gaps(), now, shown));
  if (get("legend").childElementCount === 0)
    for (const [how, text] of Object.entries(LEVELS)) get("legend").append(make("span", `${MARKS[how]} ${text}`, { "data-level": how }));
}

function showChanges() {
  const told = unit.changes.filter(({ key }) => LANE_NAMES.has(key) || key === "agent" || key === "control");
  replace(get("changes"), told.slice(-MOST_CHANGES).reverse(), (change) => {
    const lane = LANE_NAMES.get(change.key), name = change.name && change.name !== change.words ? ` (${change.name})` : "";
    const item = make("li");
    item.append(make("time", moment(change.time, unitNow())), " ", mark(change.level),
      lane ? `${lane}: ${change.words}${name}` : change.words);
    return item;
  });
}

// --- what the server said ---------------------------------------------------------------------------------------------

function noEvents() {
  if (!isLive() || !unit.pastKnown) return "Not known now.";
  return unit.beat.log ? "Nothing in the last hour that needs words."
    : "Nobody follows the log: what the server says is not known.";
}

function showEvents() {
  const since = unitNow() - HOUR;
  const events = unit.changes.filter((change) => change.key === "log" && change.time > since && change.level !== "good");
  get("no-events").hidden = events.length > 0;
  say("no-events", noEvents());
  replace(get("events"), events.slice(-MOST_EVENTS).reverse(), (event) => {
    const item = make("li", undefined, { "data-event": event.event });
    const what = make("span", undefined, { class: "what", "data-level": event.level });
    what.append(mark(event.level), `${event.section}: ${event.words}${event.more ? ` (${event.more} more times)` : ""}`);
    item.append(make("time", clock(event.time)), what);
    if (event.todo) item.append(make("span", `What to do: ${event.todo}`, { class: "todo" }));
    if (event.line) item.append(make("code", event.line));
    return item;
  });
}

// --- all values -------------------------------------------------------------------------------------------------------

function shownValue({ value: raw, name, words: plain }) {
  if (raw === null || raw === "" || plain.startsWith(raw)) return raw === null ? "unknown" : plain;
  return `${[raw, name !== raw && name].filter(Boolean).join(" ")}: ${plain}`;
}

function valueRow([key, entry]) {
  const row = make("tr", undefined, { "data-key": key }), isKnown = isLive() && known(key);
  const how = isKnown ? entry.level : "unknown";
  const cell = make("td", undefined, { "data-level": how });
  cell.append(mark(how), shownValue(entry), entry.value !== null && !isKnown ? " (last known)" : "");
  row.append(make("th", entry.label, { scope: "row" }), cell,
    make("td", entry.since ? moment(entry.since, unitNow()) : "", { class: "quiet" }));
  return row;
}

function showValues() {
  const body = get("values").tBodies[0];
  once(body, [unit.values, unit.beat.stale, isLive(), day(unitNow())],
    () => body.replaceChildren(...Object.entries(unit.values).map(valueRow)));
}

function figures() {
  const { process, age, restarts = 0, link_losses: losses = 0, refusals = 0 } = unit.beat;
  const memory = process && `${(process.resident_bytes / 1048576).toFixed(1)} MiB, ${process.threads} threads`;
  return [
    age === null || age === undefined ? "no status object yet" : `newest status object ${age} s old`,
    process ? `server process ${process.pid}: ${memory}${process.descriptors ? `, ${process.descriptors} descriptors` : ""}`
      : "no process of the server in sight",
    [counted(restarts, "restart"), `${counted(losses, "loss", "losses")} of the internal link`,
      `${counted(refusals, "refusal")} since the agent began`].join(", "),
  ].join("; ");
}

get("span").onchange = () => { spanChosen = true; later(); };
narrow.addEventListener("change", later);
addEventListener("resize", later);
begin(later);
