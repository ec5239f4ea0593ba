// What the agent tells: the unit as it was told last, what has changed, and whether the agent is there at all.

export const SILENCE = 5000;  // the agent has a beat every two seconds
const AGAIN = 2000;
const KEEP_EACH = 400, KEEP_LOG = 1500;  // as the agent does: one that changes all the time drives out no other

// `newest` is the id of the newest change that `values` hold; `before` is what was when `changes` begin, which are in order.
export const unit = {
  values: {}, newest: 0, changes: [], before: [], pastKnown: false, beat: {}, actions: {},
  state: "connecting", since: 0, heard: 0, heardAt: 0, offset: 0,
};
let stream = null, again = 0, tried = 0, pastsAsked = 0, tellPage = () => {};

export const unitNow = () => (unit.offset + performance.now()) / 1000;

export function begin(tell) {
  tellPage = tell;
  setInterval(look, 1000);
  for (const back of ["visibilitychange", "resume"]) document.addEventListener(back, look);
  addEventListener("pageshow", look);
  connect();
}

export async function fetchSoon(path, options = {}) {
  // Where the network has gone nothing answers, and the browser waits for minutes.
  const giving = new AbortController(), timer = setTimeout(() => giving.abort(), SILENCE);
  try {
    return await fetch(path, { ...options, signal: giving.signal });
  } finally {
    clearTimeout(timer);
  }
}

// --- the connection ---------------------------------------------------------------------------------------------------

export async function connect() {
  clearTimeout(again);
  stream?.close();
  stream = null;
  const mine = tried = performance.now();
  const status = await fetchSoon("/api/status").then((answer) => answer.status, () => 0);
  if (mine !== tried) return;  // another try has begun since
  if (status === 401) {
    unit.state = "locked";
    tellPage();
  } else if (status === 200) {
    if (unit.state === "locked") unit.state = "connecting";
    listen(new EventSource("/api/events"));
  } else {
    lose();
    again = setTimeout(connect, AGAIN);
  }
}

function listen(events) {
  stream = events;
  const take = (kind, taking) => events.addEventListener(kind, (event) => taking(JSON.parse(event.data)));
  take("status", takeStatus);
  take("beat", takeBeat);
  take("change", takeChange);
  events.onerror = () => {
    lose();
    if (events.readyState === EventSource.CLOSED) again = setTimeout(connect, AGAIN);
  };
}

// Whether it still speaks. While the computer sleeps one of its two clocks stands still: what is shown is older than it looks.
function look() {
  const tick = performance.now();
  if (unit.state === "live" && Math.max(tick - unit.heard, Date.now() - unit.heardAt) > SILENCE) lose();
  const waits = unit.state === "lost" || unit.state === "connecting";
  if (waits && tick - Math.max(unit.heard, tried) > 2 * SILENCE) connect();
  tellPage();
}

function lose() {
  if (unit.state === "locked") return;
  if (unit.state !== "lost") {
    unit.state = "lost";
    unit.since = unit.heardAt || Date.now();
  }
  tellPage();
}

function heard(time) {
  unit.heard = performance.now();
  unit.heardAt = Date.now();
  if (time) unit.offset = time * 1000 - performance.now();
  unit.state = "live";
  tellPage();
}

// --- what comes -------------------------------------------------------------------------------------------------------

function forgetPast(began) {
  Object.assign(unit, { began, changes: [], before: [], pastKnown: false });
}

function takeStatus(status) {
  if (status.began !== unit.began) forgetPast(status.began);  // another agent counts anew
  Object.assign(unit, { values: status.values, newest: status.id ?? 0, actions: status.actions });
  takeBeat(status);
  loadPast();
}

function takeBeat(beat) {
  unit.beat = beat;
  heard(beat.time);
}

function takeChange(change) {
  if (change.jump) {  // of the clock: the agent has moved all that was before
    forgetPast(null);
    return void connect();
  }
  if (!(change.id <= unit.changes.at(-1)?.id)) keep(change);
  if (change.id > unit.newest) {  // who was away is told what was missed, too: that is not what is
    unit.newest = change.id;
    const { new: value, time: since, name, words, level } = change;
    if (unit.values[change.key]) Object.assign(unit.values[change.key], { value, since, name, words, level });
  }
  heard();
}

function keep(change) {
  unit.changes.push(change);
  const same = unit.changes.filter((each) => each.key === change.key);
  if (same.length <= (change.key === "log" ? KEEP_LOG : KEEP_EACH)) return;
  unit.changes.splice(unit.changes.indexOf(same[0]), 1);
  unit.before = [...unit.before.filter((each) => each.key !== change.key), same[0]];
}

// The agent's history stands for all that came before it was asked; what came since goes on behind it.
async function loadPast() {
  const mine = ++pastsAsked;
  let past = null;
  try {
    const answer = await fetch("/api/history");
    if (answer.ok) past = await answer.json();
  } catch { /* the stream tells whether the agent is lost */ }
  if (mine !== pastsAsked) return;  // it was asked again since
  if (past === null) return void setTimeout(() => { if (mine === pastsAsked && unit.state === "live") loadPast(); }, AGAIN);
  const newest = Math.max(0, ...past.before.map((change) => change.id), past.changes.at(-1)?.id ?? 0);
  unit.changes = [...past.changes, ...unit.changes.filter((change) => change.id > newest)];
  unit.before = past.before;
  unit.pastKnown = true;
  tellPage();
}
