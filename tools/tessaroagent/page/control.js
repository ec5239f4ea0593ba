// What a person may do here: give the unit's token, and change something where the agent lets them.

import { connect, fetchSoon, unit, unitNow } from "./watch.js";
import { clock, get, make } from "./words.js";

const NAMES = { disarm: "Disarm", reset: "Reset the external link", reconfigure: "Read the configuration again" };
let asking = false;

const say = (text) => { get("control-said").textContent = text; };

const post = (path, body) => fetchSoon(path,
  { method: "POST", headers: { "Content-Type": "application/json" }, body: JSON.stringify(body) });

export function showControl() {
  const names = Object.keys(unit.actions || {}), place = get("actions"), live = unit.state === "live";
  get("control").hidden = names.length === 0;
  if (place.childElementCount !== names.length)
    place.replaceChildren(...names.map((name) => {
      const button = make("button", NAMES[name] || name, { type: "button", "data-action": name });
      button.onclick = () => ask(name);
      return button;
    }));
  for (const button of place.querySelectorAll("button")) button.disabled = !live;
  if (!live && get("confirm").open) {
    get("confirm").close();
    say("Nothing was sent: the agent is lost.");
  }
}

async function ask(name) {
  if (asking) return;  // else what is asked could change under the finger that says yes
  asking = true;
  const title = NAMES[name] || name;
  say("");
  try {
    const offer = await post(`/api/control/${name}`, {});
    if (offer.status !== 202) return say(`${title}: ${await offer.text()}`);
    const { confirm, text } = await offer.json();
    get("confirm-title").textContent = `${title}?`;
    get("confirm-text").textContent = text;
    get("confirm-yes").onclick = () => { get("confirm").close(); send(name, title, confirm); };
    get("confirm").showModal();
  } catch {
    say(`${title}: nothing was sent, the agent does not answer.`);
  } finally {
    asking = false;
  }
}

async function send(name, title, confirm) {
  try {
    const done = await post(`/api/control/${name}`, { confirm });
    say(done.ok ? `${title}: sent to the server at ${clock(unitNow())}.` : `${title}: ${await done.text()}`);
  } catch {
    say(`${title}: the agent has not answered. It may have been sent, or not: see what changes.`);
  }
}

async function login(event) {
  event.preventDefault();
  const answer = await post("/api/session", { token: get("token").value }).catch(() => null);
  get("login-said").textContent = answer?.ok ? "" : answer?.status === 403 ? "This is not the unit's token."
    : "The agent does not answer; try again.";
  if (!answer?.ok) return;
  get("token").value = "";
  connect();
}

get("confirm-no").onclick = () => get("confirm").close();
get("login").onsubmit = login;
