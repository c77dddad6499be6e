// Small helpers. Whatever came from outside becomes a text node, never markup.

export const byId = (id) => document.getElementById(id);

// What would be invisible or turn the direction of a line is shown as its code.
const UNSEEN = /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u061c\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb]/g;
export const visible = (text) => String(text).replace(UNSEEN,
  (c) => "\\u" + c.charCodeAt(0).toString(16).padStart(4, "0"));

export function make(tag, options = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(options)) {
    if (name === "class") element.className = value;
    else if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else if (name in element && name !== "list" && name !== "role") element[name] = value;
    else element.setAttribute(name, value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

// Text from outside: on one line, apart from the direction of what surrounds it.
export const foreign = (text) => make("bdi", {}, visible(text).replace(/[\t\n]+/g, " "));
export const cell = (className, ...children) => make("td", { class: className }, ...children);
export const rowButton = (text, label, act) =>
  make("button", { type: "button", class: "row", "aria-label": label, onclick: act }, foreign(text));

const pad = (number, length = 2) => String(number).padStart(length, "0");
export function clock(ms) {
  const at = new Date(ms);
  return `${pad(at.getUTCHours())}:${pad(at.getUTCMinutes())}:${pad(at.getUTCSeconds())}`;
}
export function moment(ms) {
  return ms ? new Date(ms).toISOString().replace("T", " ").replace("Z", " UTC") : "–";
}

export function span(seconds) {
  if (!Number.isFinite(seconds)) return "–";
  const ahead = seconds < -1.5 ? "in " : "";
  const s = Math.round(Math.abs(seconds));
  if (s < 60) return `${ahead}${s} s`;
  if (s < 3600) return `${ahead}${Math.floor(s / 60)} min`;
  if (s < 172800) return `${ahead}${Math.floor(s / 3600)} h`;
  if (s < 86400 * 730) return `${ahead}${Math.floor(s / 86400)} d`;
  return `${ahead}${Math.floor(s / 31557600)} a`;
}

export function bytes(count) {
  if (count === null || count === undefined) return "–";
  if (count < 10000) return `${count} B`;
  if (count < 1024 * 1000) return `${(count / 1024).toFixed(0)} KiB`;
  return `${(count / 1048576).toFixed(1)} MiB`;
}

export function took(seconds) {
  if (seconds === null || seconds === undefined) return "under way";
  if (seconds < 1) return `${(seconds * 1000).toFixed(seconds < 0.01 ? 1 : 0)} ms`;
  return `${seconds.toFixed(1)} s`;
}

export function verdictClass(verdict) {
  if (verdict.startsWith("accepted")) return "verdict-good";
  return verdict.startsWith("misbehaved") ? "verdict-wait" : "verdict-bad";
}

// The cloud's clock: set from its messages, carried on by this machine's.
let clockOffset = 0;
export const setClock = (ms) => { clockOffset = ms - Date.now(); };
export const now = () => Date.now() + clockOffset;

// "how long ago" that stays right: elements with the moment in them, told anew once a second.
export function ago(ms) {
  const element = make("span", { class: "ago" });
  element.dataset.at = ms ?? "";
  element.textContent = agoText(ms);
  return element;
}
const agoText = (ms) => (ms ? span((now() - ms) / 1000) : "–");
export function tellTimes(root = document) {
  for (const element of root.querySelectorAll(".ago")) {
    const text = agoText(Number(element.dataset.at));
    if (element.textContent !== text) element.textContent = text;
  }
}

export async function ask(path, body) {
  const options = body === undefined ? {} : {
    method: "POST", headers: { "Content-Type": "application/json" }, body: JSON.stringify(body),
  };
  let answer;
  try {
    answer = await fetch(path, options);
  } catch (error) {
    throw new Error("The cloud does not answer; nothing has changed.");
  }
  let document_;
  try {
    document_ = await answer.json();
  } catch (error) {
    throw new Error(`The cloud's answer could not be read (status ${answer.status}).`);
  }
  if (!answer.ok) throw Object.assign(new Error(document_.error || `Status ${answer.status}`), document_);
  return document_;
}

export function say(id, text, good = true, list = []) {
  const element = byId(id);
  element.className = good ? "said" : "said bad";
  element.replaceChildren(visible(text));
  if (list.length) element.append(make("ul", {}, ...list.map((line) => make("li", {}, visible(line)))));
}

// --- the dialog with one thing whole ---

export function details(title, ...children) {
  byId("details-title").replaceChildren(foreign(title));
  byId("details-body").replaceChildren(...children.filter(Boolean));
  if (!byId("details").open) byId("details").showModal();
}
export const part = (title, text) => [make("h3", {}, title), make("pre", { tabIndex: 0 }, visible(text))];
export function facts(pairs) {
  const list = make("dl", { class: "facts" });
  for (const [name, value] of pairs) {
    if (value === null || value === undefined || value === "") continue;
    list.append(make("dt", {}, name), make("dd", {}, value instanceof Node ? value : foreign(value)));
  }
  return list;
}
byId("details-close").addEventListener("click", () => byId("details").close());
byId("details").addEventListener("click", (event) => {
  if (event.target === byId("details")) byId("details").close();
});
