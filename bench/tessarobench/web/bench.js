// The bench's controls. Every button says whether its fault is on; packets come in small lots, newest first.

const MOST_ROWS = 250;
const LINKS = { uart: "Base controller (UART)", eglink: "Machine controller (eth0)", glink: "Remote units (wlan0)", gpio: "Machine-stop relay", server: "The server itself" };
const WAYS = { ">": "to the base unit", "<": "from the base unit", "*": "the bench" };
const get = (id) => document.getElementById(id);
let held = [];

function make(name, text, attributes = {}) {
  const made = document.createElement(name);
  if (text !== undefined) made.textContent = text;
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  return made;
}

// What was refused stands until something is done.
function refuse(what, reason) {
  get("refused").hidden = !reason;
  get("refused").textContent = reason ? `Not done: ${what}. ${reason}` : "";
}

async function post(path, what) {
  try {
    const answer = await fetch(path, { method: "POST", headers: { "X-Bench": "1" } });
    refuse(what, answer.ok ? "" : (await answer.json()).reason);
  } catch {
    refuse(what, "The bench does not answer.");
  }
}

function lay(state) {
  for (const [link, title] of Object.entries(LINKS)) {
    const group = make("fieldset");
    group.append(make("legend", title));
    for (const fault of state.faults.filter((each) => each.link === link)) {
      const button = make("button", fault.what, { type: "button", "data-fault": fault.name });
      if (fault.lasts) button.setAttribute("aria-pressed", "false");
      button.onclick = () => post(`/bench/fault/${fault.name}`, fault.what);
      group.append(button);
    }
    get("faults").append(group);
  }
  for (const scene of state.scenes) get("scene").append(make("option", scene.title, { value: scene.name }));
  for (const stall of state.stalls) {
    const button = make("button", stall.title, { type: "button", "data-stall": stall.name });
    button.onclick = () => post(`/bench/scene/${stall.name}`, stall.title);
    get("stalls").append(button);
  }
  get("begin").onclick = () => post(`/bench/scene/${get("scene").value}`, get("scene").selectedOptions[0].text);
}

function show(state) {
  const page = `${location.protocol}//${location.hostname}:${state.agent}/`;
  if (get("unit").src !== page) get("unit").src = page;
  for (const fault of state.faults) {
    const button = document.querySelector(`[data-fault="${fault.name}"]`);
    if (fault.lasts) button.setAttribute("aria-pressed", String(fault.on));
    button.disabled = !state.stands || state.playing !== null;
  }
  for (const button of document.querySelectorAll("#begin, [data-stall]")) button.disabled = false;
  const title = [...state.scenes, ...state.stalls].find((scene) => scene.name === state.playing)?.title ?? "Normal operation";
  const broken = state.faults.filter((fault) => fault.lasts && fault.on).map((fault) => fault.what).join(", ");
  say(!state.stands ? "Laying a fresh installation" : state.playing !== null ? `Playing: ${title}`
    : broken ? `✕ broken at a click: ${broken}`
    : state.outcome ? `${state.outcome.ok ? "✓" : "✕"} ${state.outcome.text}` : "Ready");
}

function say(text) {
  if (get("said").textContent !== text) get("said").textContent = text;
}

// Nobody is there who would do what a button says, and nobody knows what is broken.
function lose() {
  get("gone").hidden = false;
  say("The bench has ended");
  for (const button of document.querySelectorAll("main button")) button.disabled = true;
  for (const button of document.querySelectorAll("[aria-pressed]")) button.removeAttribute("aria-pressed");
}

function row(item) {
  const story = item.link === "bench";
  const made = make("tr", undefined, { class: `${story ? "story" : ""} ${item.kind}` });
  const time = new Date(item.time * 1000);
  const what = make("td", item.words);
  if (item.bytes) what.append(make("code", item.bytes + (item.size * 3 - 1 > item.bytes.length ? ` … (${item.size} bytes)` : "")));
  made.append(make("td", `${time.toLocaleTimeString([], { hour12: false })}.${String(time.getMilliseconds()).padStart(3, "0")}`),
    make("td", story ? "" : item.link), make("td", story ? "" : WAYS[item.direction]), what);
  return made;
}

function take(items) {
  held.push(...items.filter((item) => item.kind !== "small" || get("small").checked));
  held = held.slice(-MOST_ROWS);
  if (get("hold").checked || !held.length) return;
  const body = get("packets").tBodies[0];
  body.prepend(...held.reverse().map(row));
  held = [];
  while (body.rows.length > MOST_ROWS) body.lastChild.remove();
}

// A stream begins with everything that the bench still has: of another bench, or told once more.
function begin() {
  get("gone").hidden = true;
  held = [];
  get("packets").tBodies[0].replaceChildren();
}

let laid = false;
const stream = new EventSource("/bench/packets");
stream.onopen = begin;
stream.onerror = lose;
stream.onmessage = (event) => {
  const { items, state } = JSON.parse(event.data);
  if (!laid) lay(state);
  laid = true;
  take(items);
  show(state);
};
