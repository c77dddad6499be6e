// The lists: events, records, objects, requests, sets. Each is bounded, the newest on top.
import { ago, ask, byId, bytes, cell, clock, details, facts, foreign, make, moment, part, rowButton,
  took, verdictClass } from "./dom.js";

const MOST_ROWS = 150;

// Rows by key, newest on top; a row that changes is replaced in its place.
class List {
  constructor(id, row) {
    this.body = byId(id);
    this.none = document.querySelector(`[data-none="${id}"]`);
    this.row = row;
    this.rows = new Map();
  }

  clear() {
    this.rows.clear();
    this.body.replaceChildren();
    this.showNone();
  }

  showNone() {
    const empty = this.rows.size === 0;
    this.none.hidden = !empty;
    this.body.closest("table")?.toggleAttribute("hidden", empty);
  }

  take(items, key, first) {
    const fresh = document.createDocumentFragment();
    for (const item of items.slice(-MOST_ROWS)) {
      const before = this.rows.get(key(item));
      const row = this.row(item);
      this.rows.set(key(item), row);
      if (before) this.replace(before, row);
      else {
        if (!first) row.classList.add("new");
        fresh.prepend(row);
      }
    }
    this.body.prepend(fresh);
    while (this.rows.size > MOST_ROWS) {
      const [oldest, row] = this.rows.entries().next().value;
      row.remove();
      this.rows.delete(oldest);
    }
    this.showNone();
  }

  replace(before, row) {
    const focused = before.contains(document.activeElement);
    before.replaceWith(row);
    if (focused) row.querySelector("button")?.focus({ preventScroll: true });
  }
}

// --- events ---

let held = false;
let heldEvents = [];
let heldMore = 0;

let only = "";
const events = new List("event-rows", eventRow);

function eventRow(item) {
  const at = Date.parse(item.time);
  const row = make("tr", {},
    cell("key", rowButton(item.type, `${item.type}: show the whole event`, () => showEvent(item.change))),
    cell("", Number.isFinite(at) ? clock(at) + item.time.slice(19, 23) : foreign(item.time)),
    cell("num", ago(Number.isFinite(at) ? at : null)),
    cell("more", foreign(item.source || "sender")),
    cell("more", foreign(`${item.device} ${item.boot}/${item.standby}`)),
    cell("cut line", make("code", {}, foreign(item.preview))));
  row.dataset.type = item.type.toLowerCase();
  row.hidden = !row.dataset.type.includes(only);
  return row;
}

async function showEvent(change) {
  await shown(async () => {
    const found = await ask(`/page/event?change=${change}`);
    const { event, header } = found;
    details(String(event["event-type"]),
      facts([["time", event.time], ["time from", event["utc-src"] ?? "the sender"],
        ["kernel time", event.ts === undefined ? "" : `${event.ts} ms`],
        ["arrived", moment(found.arrived)], ["set", header.deviceid],
        ["cycle", `boot ${header["boot-count"]}, standby ${header["standby-count"]}`],
        ["record of request", found.record > 0 ? found.record : "an earlier run"], ["stream", found.stream]]),
      ...part("Event", JSON.stringify(event, null, 2)),
      ...part("Session header", JSON.stringify(header, null, 2)));
  });
}

function takeEvents(items, first, all) {
  if (held) {
    heldEvents = heldEvents.concat(items).slice(-MOST_ROWS);
    heldMore += all;
  } else {
    events.take(items, (item) => item.change, first);
  }
  note();
}

function note() {
  const words = events.rows.size ? [`The newest ${events.rows.size}; times are the events' own.`] : [];
  if (held) words.push(`Held: ${heldMore} more have arrived.`);
  byId("events-note").textContent = words.join(" ");
}

byId("hold").addEventListener("click", () => {
  held = !held;
  byId("hold").setAttribute("aria-pressed", String(held));
  if (!held) {
    events.take(heldEvents, (item) => item.change, false);
    heldEvents = [];
    heldMore = 0;
  }
  note();
});
byId("events-only").addEventListener("input", (event) => {
  only = event.target.value.trim().toLowerCase();
  for (const row of events.rows.values()) row.hidden = !row.dataset.type.includes(only);
});

// --- records ---

const records = new List("record-rows", (item) => {
  const number = item.number > 0 ? String(item.number) : "earlier";
  const verdict = kept(item);
  return make("tr", {},
    cell("", rowButton(number, `Record of request ${number}: show it`, () => showRecord(item.number))),
    cell("", clock(item.arrived)), cell("num", bytes(item.bytes)),
    withUnit("events", item.events === null ? (item.kept && !item.note ? "…" : "–") : String(item.events)),
    cell("wrap line " + verdictClass(item.verdict), foreign(item.note ? `${verdict}; ${item.note}` : verdict)));
});

function withUnit(unit, text) {
  const element = cell("num", text);
  element.dataset.unit = unit;
  return element;
}

async function showRecord(number) {
  await shown(async () => {
    const found = await ask(`/page/record?number=${number}`);
    const lines = found.text === null ? [] : found.text.split("\n").filter(Boolean);
    details(`Record${number > 0 ? ` of request ${number}` : ""}`,
      facts([["arrived", moment(found.arrived)], ["stream", found.stream], ["set", found.device],
        ["size", `${found.bytes ?? "–"} bytes`], ["events", found.events], ["verdict", found.verdict],
        ["note", found.note]]),
      ...(found.text === null ? [make("p", {}, found.kept
        ? "Its bytes are no longer in memory; they are in the state directory, below records/."
        : "It was not kept.")] : lines.slice(0, 20).flatMap((line, place) =>
        part(`Session block ${place + 1} of ${lines.length}`, indented(line)))));
  });
}

function indented(text) {
  try { return JSON.stringify(JSON.parse(text), null, 2); } catch (error) { return text; }
}

// --- objects ---

const objects = new List("object-rows", (item) => make("tr", {},
  cell("wrap", rowButton(`${item.bucket}/${item.key}`, `Object ${item.key}: show it`, () => showObject(item))),
  cell("", clock(item.arrived)), cell("num", bytes(item.bytes)),
  cell("wrap line " + verdictClass(item.verdict), foreign(kept(item)))));
const kept = (item) => (item.kept && !item.verdict.startsWith("accepted") ? `kept, but ${item.verdict}`
  : item.kept || item.verdict.startsWith("refused") ? item.verdict : `not kept; ${item.verdict}`);

async function showObject(item) {
  await shown(async () => {
    const place = `/page/object?bucket=${encodeURIComponent(item.bucket)}&key=${encodeURIComponent(item.key)}`;
    const found = await ask(place);
    const preview = found.image
      ? [make("h3", {}, "Picture"), make("img", { src: `${place}&as=image`, alt: "The object as a picture" })]
      : found.text === null
        ? [...part("First bytes (it is not text)", found.hex)]
        : [...part(found.more ? "Beginning" : "Text", indented(found.text))];
    details(found.key,
      facts([["bucket", found.bucket], ["size", `${found.bytes} bytes`], ["type, as sent", found["content-type"]],
        ["MD5", found.md5], ["arrived", found.time], ["file", found.file && `objects/${found.file}`],
        ["", make("a", { href: `${place}&as=file`, download: "" }, "Save it")]]),
      ...preview);
  });
}

// --- requests ---

const requests = new List("request-rows", (item) => make("tr", {},
  cell("", rowButton(String(item.number), `Request ${item.number}: show it`, () => showRequest(item.number))),
  cell("", item.time.slice(11, 19)), cell("", foreign(item.target)),
  cell("num", item.status === null ? "–" : String(item.status)), cell("num", took(item.duration)),
  cell("wrap line " + verdictClass(item.verdict), foreign(item.verdict)),
  cell("more cut", foreign(`${item.method} ${item.path}`))));

async function showRequest(number) {
  await shown(async () => {
    const found = await ask(`/page/request?number=${number}`);
    const { headers, ...rest } = found;
    details(`Request ${number}`,
      facts([["target", found.target], ["asked", `${found.method} ${found.path}`], ["time", found.time],
        ["answered", found.status], ["verdict", found.verdict],
        ["took", found.duration === null ? "under way" : took(found.duration)],
        ["bytes in body", found.bytes], ["bytes out", found["bytes-out"]]]),
      ...(headers ? part("Headers", Object.entries(headers).map(([k, v]) => `${k}: ${v}`).join("\n")) : []),
      ...part("In the log", JSON.stringify(rest, null, 2)));
  });
}

async function shown(show) {
  try { await show(); } catch (error) { details("Not there", make("p", {}, error.message)); }
}

// --- sets ---

const sets = new List("set-rows", (item) => {
  const f = item.facts;
  const fact = (name, value) => (value === undefined || value === "" || value === null ? null
    : make("div", {}, make("dt", {}, name), make("dd", {}, value instanceof Node ? value : foreign(value))));
  const state = item.given === null ? ["wait", "no configuration given in this run"]
    : item.current ? ["good", "has the configuration"] : ["wait", "configuration edited, not given out yet"];
  return make("article", { class: "set" },
    make("h3", {}, foreign(item.device), make("span", { class: `pill ${state[0]}` }, state[1])),
    make("p", {}, foreign([f.ctn, f.component ?? f.platform, f.software, f.country].filter(Boolean).join(" · "))),
    make("dl", {}, fact("events", String(item.events)),
      fact("records", `${item.records} (${bytes(item.bytes)})`), fact("boot / standby", f.boot ? `${f.boot} / ${f.standby}` : ""),
      fact("last seen", wordsAgo(item.last)), fact("first seen", wordsAgo(item.first)),
      fact("configuration asked", item.asked === 1 ? "once" : `${item.asked} times`), fact("last given", item.given ? wordsAgo(item.given) : "never"),
      fact("serial", f.serial), fact("MAC", f.mac), fact("consent sent", f.terms),
      fact("program", f.client ?? f.kivApp), fact("store", f.store)));
});
const wordsAgo = (ms) => make("span", {}, ago(ms), " ago");
const setItems = new Map();

function takeSets(items, current) {
  let changed = items;
  for (const item of items) setItems.set(item.device, item);
  if (current) {
    const others = [...setItems.values()].filter((item) => !items.includes(item)
      && item.device in current && current[item.device] !== item.current);
    for (const item of others) item.current = current[item.device];
    for (const item of items) if (item.device in current) item.current = current[item.device];
    changed = items.concat(others);
  }
  sets.take(changed, (item) => item.device, true);
}

export const knownSets = () => [...setItems.keys()];

// --- a message of the stream ---

export function reset() {
  for (const list of [events, records, objects, requests, sets]) list.clear();
  setItems.clear();
  heldEvents = [];
  heldMore = 0;
}

export function take(message, newEvents) {
  const first = message.all;
  takeEvents(message.events, first, newEvents);
  records.take(message.records, (item) => item.number, first);
  objects.take(message.objects, (item) => `${item.bucket}/${item.key}`, first);
  requests.take(message.requests, (item) => item.number, first);
  takeSets(message.sets, message.current);
}
