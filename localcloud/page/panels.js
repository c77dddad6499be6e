// What a person does: misbehaviour, configuration, filter.
import { ask, byId, cell, foreign, make, say } from "./dom.js";
import { knownSets } from "./lists.js";

const NAMES = { config: "configuration", tou: "terms of use", time: "time", geo: "location",
  firehose: "stream", s3: "objects", https: "connections" };
const LASTS = [["", "until told otherwise"], ["1", "once"], ["2", "2 times"], ["5", "5 times"], ["20", "20 times"]];

let state = null; // targets and actions
const targets = new Map();

export async function start() {
  state = await ask("/page/state");
  if (configLoaded === null) await loadConfig();
  byId("targets").replaceChildren(...state.targets.map(targetRow));
  showTold(state);
  const missing = state["filter-program"];
  byId("filter-missing").hidden = !missing;
  byId("filter-panel").hidden = Boolean(missing);
  if (missing) byId("filter-missing").textContent = `No filter can be tried here. ${missing}`;
}

// --- misbehaviour ---

function targetRow(name) {
  const known = Object.entries(state.actions).filter(([, action]) => action.targets.includes(name));
  const choose = make("select", { "aria-label": `What ${NAMES[name]} shall do` },
    ...known.map(([action]) => make("option", { value: action }, action)));
  const lasts = make("select", { "aria-label": "How often" }, ...LASTS.map(([value, words]) => make("option", { value }, words)));
  const options = make("div", { class: "options" });
  const told = make("span", { class: "state" });
  options.hidden = true;
  const more = make("button", { type: "button", "aria-expanded": "false", "aria-label": `${NAMES[name]}: options`, onclick: () => {
    options.hidden = !options.hidden;
    more.setAttribute("aria-expanded", String(!options.hidden));
  } }, "…");
  const misbehave = make("button", { type: "button", onclick: () => tell(name, spoken(choose.value, lasts.value, options)) }, "Misbehave");
  const behave = make("button", { type: "button", disabled: true, onclick: () => tell(name, null) }, "Behave");
  misbehave.setAttribute("aria-label", `${NAMES[name]}: misbehave`);
  behave.setAttribute("aria-label", `${NAMES[name]}: behave again`);
  const row = make("div", { class: "target", role: "group", "aria-label": `${NAMES[name]} (${name})` },
    make("strong", {}, name), told, make("div", { class: "choice" }, choose, more, misbehave, behave), options);
  row.dataset.target = name;
  const refill = () => options.replaceChildren(make("label", {}, "lasts ", lasts),
    ...Object.entries(state.actions[choose.value].options)
      .filter(([option]) => name !== "https" || option === "kind").map(optionField));
  choose.addEventListener("change", refill);
  refill();
  targets.set(name, { row, told, behave });
  return row;
}

function optionField([name, option]) {
  let field;
  if (option.kind === "choice") {
    field = make("select", {}, make("option", { value: "" }, "default"), ...option.choices.map((value) => make("option", { value }, value)));
  } else if (option.kind === "yes") {
    field = make("input", { type: "checkbox" });
  } else if (option.kind === "number") {
    field = make("input", { type: "number", step: option.whole ? "1" : "any", placeholder: "default" });
  } else {
    field = make("input", { type: "text", placeholder: "default", autocomplete: "off" });
  }
  field.dataset.option = name;
  field.dataset.kind = option.kind;
  return make("label", {}, `${name} `, field);
}

function spoken(action, count, options) {
  const told = { action };
  if (count) told.count = Number(count);
  for (const field of options.querySelectorAll("[data-option]")) {
    const { option, kind } = field.dataset;
    if (kind === "yes") { if (field.checked) told[option] = true; }
    else if (field.value !== "") told[option] = kind === "number" ? Number(field.value) : field.value;
  }
  return told;
}

async function tell(target, told) {
  try {
    showTold(await ask("/page/misbehave", { target, told }));
    say("misbehave-said", told ? `${NAMES[target]}: ${words(told)}, from the next ${target === "https" ? "connection" : "request"} on.`
      : `${NAMES[target]}: behaves again.`);
  } catch (error) {
    say("misbehave-said", error.message, false);
  }
}

function words(told) {
  const { action, count, ...options } = told;
  const more = Object.entries(options).map(([name, value]) => `${name} ${JSON.stringify(value)}`);
  const lasts = count ? [count === 1 ? "once" : `${count} times`] : [];
  return [action, ...more, ...lasts].join(", ");
}

export function showTold(told) {
  let active = 0;
  for (const [name, { row, told: place, behave }] of targets) {
    const list = told.misbehave[name] ?? [];
    const text = list.length ? `now: ${list.map(words).join("; then ")}` : "behaves";
    if (place.textContent !== text) place.replaceChildren(foreign(text));
    row.classList.toggle("told", list.length > 0);
    behave.disabled = list.length === 0;
    active += list.length > 0;
  }
  byId("behave-all").disabled = active === 0;
  // Edited elsewhere: shown, unless somebody edits here.
  const edited = JSON.stringify(told.config);
  if (edited !== seenConfig && configLoaded && !isEdited()) loadConfig(true);
  seenConfig = edited;
}

byId("behave-all").addEventListener("click", async () => {
  for (const [name, { behave }] of targets) if (!behave.disabled) await tell(name, null);
});

// --- configuration ---

let configLoaded = null; // the text as the cloud has it
let seenConfig = "";
const text = byId("config-text");
const isEdited = () => configLoaded !== null && text.value !== configLoaded;

export function offerSets() {
  const choose = byId("config-set");
  for (const device of knownSets()) {
    if (![...choose.options].some((option) => option.value === device)) {
      choose.append(make("option", { value: device }, device.slice(0, 40)));
    }
  }
}

// What is being edited stays, where another set was not chosen.
async function loadConfig(keepsEdits = false) {
  try {
    const found = await ask(`/page/config?device=${encodeURIComponent(byId("config-set").value)}`);
    if (keepsEdits && isEdited() || found.device !== byId("config-set").value) return;
    takeConfig(found);
  } catch (error) {
    say("config-said", error.message, false);
  }
}

function takeConfig(found) {
  configLoaded = text.value = found.text;
  const told = Object.keys(found.told).length;
  byId("config-note").textContent = "A set asks when its configuration has expired (\"expiry_tou\"), at "
    + "most once in 10 minutes, and at its start when it has expired. The credentials are added to each answer; "
    + "\"kiv_tou\", left as it is, follows the user's consent. "
    + (told ? `Edited here: ${Object.keys(found.told).join(", ")}.` : "As by default.");
  byId("config-forget").disabled = told === 0;
  changed();
  return found;
}

function changed() {
  byId("config-give").disabled = !isEdited();
  byId("config-reset").disabled = !isEdited();
}

async function give(wanted) {
  const device = byId("config-set").value;
  try {
    const found = takeConfig(await ask("/page/config", { device, text: wanted }));
    text.removeAttribute("aria-invalid");
    const whom = device === "*" ? "each set" : device;
    say("config-said", `Taken over: ${whom} gets it at its next refresh.`
      + (found.concerns.length ? " It is given out as it is, though:" : ""), true, found.concerns);
  } catch (error) {
    text.setAttribute("aria-invalid", "true");
    say("config-said", `Refused, nothing has changed. ${capital(error.message)}.`, false);
    if (error.line) place(text, error.line, error.column);
  }
}

const capital = (words_) => words_.charAt(0).toUpperCase() + words_.slice(1);

function place(field, line, column) {
  const lines = field.value.split("\n");
  const start = lines.slice(0, line - 1).join("\n").length + (line > 1 ? 1 : 0) + column - 1;
  field.focus();
  field.setSelectionRange(Math.max(0, start), Math.min(start + 1, field.value.length));
}

text.addEventListener("input", changed);
byId("config-give").addEventListener("click", () => give(text.value));
byId("config-forget").addEventListener("click", () => give(null));
byId("config-reset").addEventListener("click", () => {
  text.value = configLoaded;
  text.removeAttribute("aria-invalid");
  byId("config-said").replaceChildren();
  changed();
});
byId("config-set").addEventListener("change", () => { byId("config-said").replaceChildren(); loadConfig(); });

// --- filter ---

const filterText = byId("filter-text");

byId("filter-try").addEventListener("click", async () => {
  byId("filter-try").disabled = true;
  try {
    showVerdicts(await ask("/page/filter", { text: filterText.value }));
    filterText.removeAttribute("aria-invalid");
  } catch (error) {
    filterText.setAttribute("aria-invalid", "true");
    say("filter-said", `${capital(error.message)}.`, false);
    byId("filter-types").hidden = byId("filter-events").hidden = true;
    if (error.line) place(filterText, error.line, error.column);
  } finally {
    byId("filter-try").disabled = false;
  }
});

byId("filter-of-config").addEventListener("click", () => {
  try {
    filterText.value = JSON.stringify(JSON.parse(text.value)["event-filter"] ?? {}, null, 1);
  } catch (error) {
    say("filter-said", "The configuration's text is not JSON.", false);
  }
});

function showVerdicts(found) {
  const lines = found.concerns.concat(found.lines.map((line) => `the filter reports: ${line}`));
  say("filter-said", found.tried ? `Keeps ${found.kept} of the newest ${found.tried} events.`
    : "No events have arrived yet on which it could be tried.", true, lines);
  const table = (head, rows) => make("table", { class: "rows" }, make("thead", {},
    make("tr", {}, ...head.map(([name, kind]) => make("th", { scope: "col", class: kind }, name)))), make("tbody", {}, ...rows));
  byId("filter-types").replaceChildren(table([["type", "fill"], ["kept", "num"], ["dropped", "num"]],
    Object.entries(found.types).map(([type, [kept, dropped]]) => make("tr", {}, cell("wrap", foreign(type)),
      cell("num", String(kept)), cell("num", String(dropped))))));
  byId("filter-events").replaceChildren(table([["verdict", ""], ["what decides", ""], ["event, as tried", "fill"]],
    found.events.slice(0, 100).map((event) => make("tr", {},
      cell(event.kept ? "verdict-good" : "verdict-bad", event.kept ? "kept" : "dropped"),
      cell("wrap", event.why), cell("wrap", make("code", {}, foreign(event.posted.slice(0, 160))))))));
  byId("filter-types").hidden = byId("filter-events").hidden = found.tried === 0;
}
