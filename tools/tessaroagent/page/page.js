// The unit's page: keeps what the agent tells, draws it, and says so plainly when the agent is lost.

import { MARKS, draw } from "./picture.js";
import { LANES, clock, drawStrip } from "./strip.js";

const SILENCE = 5000;      // the agent has a beat every two seconds
const AGAIN = 2000;
const HOUR = 3600;
const MOST_EVENTS = 60, MOST_CHANGES = 200, MOST_KEPT = 3000;

const get = (id) => document.getElementById(id);
const narrow = matchMedia("(max-width: 40rem)");
const unit = { values: {}, changes: [], before: [], beat: {}, actions: {}, heard: 0, offset: 0, state: "connecting", since: 0 };
let stream = null, pending = false;

function make(name, content, attributes = {}) {
  const made = document.createElement(name);
  if (content !== undefined) made.textContent = content;
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  return made;
}

const unitNow = () => (unit.offset + performance.now()) / 1000;
const level = (key) => unit.values[key]?.level || "unknown";
const words = (key) => unit.values[key]?.words || "unknown";
const value = (key) => unit.values[key]?.value ?? null;

// --- what comes -------------------------------------------------------------------------------------------------------

function heard(time) {
  unit.heard = performance.now();
  if (time) unit.offset = time * 1000 - performance.now();
  if (unit.state !== "live") { unit.state = "live"; later(); }
}

function takeStatus(status) {
  if (status.began !== unit.began) Object.assign(unit, { began: status.began, changes: [], before: [] });  // another agent counts anew
  unit.values = status.values;
  unit.actions = status.actions;
  takeBeat(status);
  loadHistory();
}

function takeBeat(beat) {
  unit.beat = beat;
  heard(beat.time);
  later();
}

function takeChange(change) {
  heard();
  if (unit.changes.some((known) => known.id === change.id)) return;
  if (change.jump) {  // of the clock: the agent has moved all that was before
    unit.began = null;
    return void connect();
  }
  unit.changes.push(change);
  if (unit.changes.length > MOST_KEPT) unit.changes.splice(0, unit.changes.length - MOST_KEPT);
  if (unit.values[change.key])
    Object.assign(unit.values[change.key], { value: change.new, since: change.time, name: change.name, words: change.words, level: change.level });
  later();
}

async function loadHistory() {
  try {
    const answer = await fetch("/api/history");
    if (!answer.ok) return;
    const past = await answer.json();
    const known = new Map([...past.changes, ...unit.changes].map((change) => [change.id, change]));
    unit.changes = [...known.values()].sort((one, other) => one.id - other.id).slice(-MOST_KEPT);
    unit.before = past.before;
    later();
  } catch { /* the stream tells that the agent is lost */ }
}

async function fetchSoon(path) {
  // Where the network has gone nothing answers, and the browser waits for minutes.
  const giving = new AbortController(), timer = setTimeout(() => giving.abort(), SILENCE);
  try {
    return await fetch(path, { signal: giving.signal });
  } finally {
    clearTimeout(timer);
  }
}

async function connect() {
  stream?.close();
  stream = null;
  let answer;
  try {
    answer = await fetchSoon("/api/status");
  } catch {
    lose();
    return void setTimeout(connect, AGAIN);
  }
  get("login").hidden = answer.status !== 401;
  if (answer.status === 401) {
    unit.state = "locked";
    return later();
  }
  if (!answer.ok) {
    lose();
    return void setTimeout(connect, AGAIN);
  }
  stream = new EventSource("/api/events");
  stream.addEventListener("status", (event) => takeStatus(JSON.parse(event.data)));
  stream.addEventListener("beat", (event) => takeBeat(JSON.parse(event.data)));
  stream.addEventListener("change", (event) => takeChange(JSON.parse(event.data)));
  stream.onerror = () => {
    lose();
    if (stream?.readyState === EventSource.CLOSED) setTimeout(connect, AGAIN);
  };
}

function lose() {
  if (unit.state === "locked") return;
  if (unit.state !== "lost") {
    unit.state = "lost";
    unit.since = Date.now();
  }
  later();
}

// --- what is shown ----------------------------------------------------------------------------------------------------

function later() {
  if (pending) return;
  pending = true;
  requestAnimationFrame(() => { pending = false; show(); });
  // A page in the background gets no frames; what it says must be true all the same.
  setTimeout(() => { if (pending) { pending = false; show(); } }, 150);
}

function known(key) {
  // Of a silent server, and of a log that nobody follows, the agent has only what was known last.
  return value(key) !== null && !unit.beat.stale?.includes(key);
}

function things() {
  const silent = value("server") !== "answers";
  const status = (key) => (known(key) ? { words: words(key), level: level(key) }
    : { words: value(key) === null ? "unknown" : `last known: ${words(key)}`, level: "unknown" });
  const armed = !known("ARMED_RU") || value("ARMED_RU") === "" ? "armed unit: unknown"
    : value("ARMED_RU") === "0" ? "no unit is armed" : `unit ${value("ARMED_RU")} is armed`;
  const count = value("units"), fallback = known("fallback") && value("fallback");
  const remote = count === null ? "unknown" : `${count === "0" ? "no" : count} connection${count === "1" ? "" : "s"}`;
  const all = {
    unit: { id: "unit", name: known("BU_ID") ? `Base unit ${value("BU_ID")}` : "Base unit",
      ...(silent ? { words: `server ${words("server")}`, level: value("server") ? "bad" : "unknown" } : status("BU_STATE")),
      more: silent ? [] : [`${armed}`, value("BU_STATE") && unit.values.BU_STATE.name] },
    controller: { id: "controller", name: "Base controller", ...status("link"), link: "internal link", state: !known("link") ? "unknown" : value("link") === "NO_BI_LINK" ? "no link" : words("link") },
    machine: { id: "machine", name: "Machine controller", ...status("EG_LINK_STATUS"), link: "Ethernet", state: known("EG_LINK_STATUS") ? words("EG_LINK_STATUS") : "unknown" },
    relay: { id: "relay", name: "Machine stop", words: words("relay"), level: level("relay"), link: "relay", state: value("relay") ?? "unknown" },
    remotes: { id: "remotes", name: "Remote units", words: remote, level: count === null ? "unknown" : fallback ? "warn" : count === "0" ? "note" : "good",
      more: [...(fallback ? [`on the fallback: ${fallback}`] : []), ...(known("UNARMED_RUs") ? [`${value("UNARMED_RUs")} not armed`] : [])],
      link: "remote link", state: count === null ? "unknown" : fallback ? "by fallback" : count === "0" ? "nobody there" : "by TCP" },
  };
  all.unit.more = all.unit.more.filter(Boolean);
  if (unit.state !== "live")
    for (const thing of Object.values(all)) Object.assign(thing, { level: "unknown", state: "not known now", words: `was: ${thing.words}` });
  return all;
}

function show() {
  document.body.classList.toggle("stale", unit.state !== "live");
  get("main").hidden = unit.state === "locked";
  showConnection();
  showProblems();
  if (unit.state === "locked") return;
  const picture = [things(), narrow.matches];
  once(get("drawing"), picture, () => draw(get("drawing"), ...picture));
  showStrip();
  showEvents();
  showValues();
  showControl();
}

// Builds what a place shows when that is another thing than before: who reads or selects it is not disturbed each second.
function once(place, content, build) {
  const text = JSON.stringify(content);
  if (place.dataset.shown === text) return;
  place.dataset.shown = text;
  build();
}

function showConnection() {
  const texts = { live: ["good", "live"], connecting: ["unknown", "connecting"], lost: ["bad", "agent lost"], locked: ["warn", "locked"] };
  let [how, text] = texts[unit.state];
  if (unit.state === "live" && !unit.beat.healthy) [how, text] = ["bad", "live, the unit is not"];
  get("connection").dataset.level = how;
  get("connection").firstElementChild.textContent = MARKS[how];
  get("connection-words").textContent = text;
  const lost = get("lost");
  lost.hidden = unit.state !== "lost";
  if (unit.state === "lost") {
    const since = new Date(unit.since).toLocaleTimeString([], { hour12: false });
    const said = `The agent is lost since ${since}. What stands below is what was known then, not what is. Trying again …`;
    if (lost.textContent !== said) lost.textContent = said;
  }
  const name = value("BU_ID") ? `Base unit ${value("BU_ID")}` : "Base unit";
  get("title").textContent = name;
  const state = unit.state === "live" ? things().unit.words : text;
  document.title = `${MARKS[how]} ${name}: ${state}`;
  const said = unit.state === "live" ? `${things().unit.words}; machine stop ${words("relay")}` : text;
  if (get("summary").textContent !== said) get("summary").textContent = said;
}

function showProblems() {
  const problems = unit.state === "live" ? unit.beat.problems || [] : [];
  const list = get("problems");
  list.hidden = !problems.length;
  once(list, problems, () => list.replaceChildren(...problems.map((problem) => {
    const item = make("li", undefined, { class: "problem", "data-serious": problem.serious });
    item.append(make("strong", `${problem.serious ? MARKS.bad : MARKS.warn} ${sentence(problem.text)}`), make("span", `What to do: ${problem.todo}`));
    return item;
  })));
}

const sentence = (text) => text.charAt(0).toUpperCase() + text.slice(1);

function gaps() {
  // From the end of one agent to the beginning of the next.
  const found = unit.changes.filter((change) => change.key === "agent" && change.last)
    .map((change) => ({ from: change.last, to: change.time, id: change.id }));
  if (unit.state === "lost") found.push({ from: (unit.offset + unit.heard) / 1000, to: Infinity, id: Infinity });
  return found;
}

function showStrip() {
  const all = [...unit.before, ...unit.changes];
  if (!unit.spanChosen && all.length) {
    // As much as there is to see, until somebody chooses.
    const watched = unitNow() - Math.min(...all.map((change) => change.time));
    get("span").value = ["60", "300", "900", "3600"].find((span) => watched < Number(span)) ?? "3600";
  }
  const span = Number(get("span").value);
  get("strip-title").textContent = span === HOUR ? "The last hour" : span === 60 ? "The last minute" : `The last ${span / 60} minutes`;
  // It moves by a point at a time: what it says under a pointer would be gone before it is read.
  const strip = get("strip"), now = unitNow();
  once(strip, [Math.floor(now * strip.clientWidth / span), strip.clientWidth, span, all.length, all.at(-1)?.id, unit.state],
    () => drawStrip(strip, all, gaps(), now, span));
  if (get("legend").childElementCount === 0)
    for (const [how, text] of [["good", "as it should be"], ["note", "neither good nor bad"], ["warn", "look"], ["bad", "bad"], ["unknown", "not known"]])
      get("legend").append(make("span", `${MARKS[how]} ${text}`, { "data-level": how }));
  const keys = new Map(LANES);
  const listed = unit.changes.filter((change) => keys.has(change.key) || change.key === "agent" || change.key === "control").slice(-MOST_CHANGES).reverse();
  replace(get("changes"), listed, (change) => {
    const item = make("li");
    const told = keys.has(change.key) ? `${keys.get(change.key)}: ${change.words}${change.name && change.name !== change.words ? ` (${change.name})` : ""}` : change.words;
    item.append(make("time", clock(change.time)), make("span", ` ${MARKS[change.level]} `, { "aria-hidden": "true", "data-level": change.level }), told);
    return item;
  });
}

function replace(list, entries, build) {
  once(list, entries.map((entry) => entry.id), () => list.replaceChildren(...entries.map(build)));
}

function showEvents() {
  const since = unitNow() - HOUR;
  const events = unit.changes.filter((change) => change.key === "log" && change.time > since && change.level !== "good").slice(-MOST_EVENTS).reverse();
  get("no-events").hidden = events.length > 0;
  replace(get("events"), events, (event) => {
    const item = make("li", undefined, { "data-event": event.event });
    const what = make("span", undefined, { class: "what", "data-level": event.level });
    what.append(make("span", `${MARKS[event.level]} `, { "aria-hidden": "true" }),
      `${event.section}: ${event.words}${event.more ? ` (${event.more} more times)` : ""}`);
    item.append(make("time", clock(event.time)), what);
    if (event.todo) item.append(make("span", `What to do: ${event.todo}`, { class: "todo" }));
    if (event.line) item.append(make("code", event.line));
    return item;
  });
}

function shownValue({ value: raw, name, words: plain }) {
  if (raw === null || raw === "" || plain.startsWith(raw)) return raw === null ? "unknown" : plain;
  return `${[raw, name !== raw && name].filter(Boolean).join(" ")}: ${plain}`;
}

function showValues() {
  const body = get("values").tBodies[0], live = unit.state === "live";
  once(body, [unit.values, unit.beat.stale, live], () => body.replaceChildren(...Object.entries(unit.values).map(([key, entry]) => {
    const row = make("tr", undefined, { "data-key": key });
    const how = live && known(key) ? entry.level : "unknown";
    const cell = make("td", undefined, { "data-level": how });
    cell.append(make("span", `${MARKS[how]} `, { "aria-hidden": "true" }), shownValue(entry));
    if (live && entry.value !== null && !known(key)) cell.append(" (last known)");
    row.append(make("th", entry.label, { scope: "row" }), cell, make("td", entry.since ? clock(entry.since) : "", { class: "quiet" }));
    return row;
  })));
  const process = unit.beat.process;
  get("figures").textContent = [
    unit.beat.age === null || unit.beat.age === undefined ? "no status object yet" : `newest status object ${unit.beat.age} s old`,
    process ? `server process ${process.pid}: ${(process.resident_bytes / 1048576).toFixed(1)} MiB, ${process.threads} threads${process.descriptors ? `, ${process.descriptors} descriptors` : ""}` : "no process of the server in sight",
    `${unit.beat.restarts ?? 0} restarts, ${unit.beat.link_losses ?? 0} losses of the internal link, ${unit.beat.refusals ?? 0} refusals since the agent began`,
  ].join("; ");
}

// --- changing something -----------------------------------------------------------------------------------------------

const NAMES = { disarm: "Disarm", reset: "Reset the external link", reconfigure: "Read the configuration again" };

function showControl() {
  const names = Object.keys(unit.actions || {});
  get("control").hidden = names.length === 0;
  const place = get("actions");
  if (place.childElementCount !== names.length)
    place.replaceChildren(...names.map((name) => {
      const button = make("button", NAMES[name] || name, { type: "button", "data-action": name });
      button.onclick = () => ask(name);
      return button;
    }));
  for (const button of place.querySelectorAll("button")) button.disabled = unit.state !== "live";
}

async function post(path, body) {
  return fetch(path, { method: "POST", headers: { "Content-Type": "application/json" }, body: JSON.stringify(body) });
}

async function ask(name) {
  const said = get("control-said");
  const offer = await post(`/api/control/${name}`, {});
  if (offer.status !== 202) return void (said.textContent = await offer.text());
  const { confirm, text } = await offer.json();
  get("confirm-title").textContent = `${NAMES[name] || name}?`;
  get("confirm-text").textContent = text;
  get("confirm-yes").onclick = async () => {
    get("confirm").close();
    const done = await post(`/api/control/${name}`, { confirm });
    said.textContent = done.ok ? `${NAMES[name]}: sent to the server.` : await done.text();
  };
  get("confirm-no").onclick = () => get("confirm").close();
  get("confirm").showModal();
}

get("login").onsubmit = async (event) => {
  event.preventDefault();
  const answer = await post("/api/session", { token: get("token").value });
  get("login-said").textContent = answer.ok ? "" : "This is not the unit's token.";
  if (answer.ok) {
    unit.state = "connecting";
    connect();
  }
};

setInterval(() => {
  if (unit.state === "live" && performance.now() - unit.heard > SILENCE) lose();
  if (unit.state === "lost" && stream && stream.readyState === EventSource.OPEN && performance.now() - unit.heard > 2 * SILENCE) connect();
  later();
}, 1000);
get("span").onchange = () => { unit.spanChosen = true; later(); };
narrow.addEventListener("change", later);
addEventListener("resize", later);
connect();
