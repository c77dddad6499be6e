// The stream of what arrives, and the parts of the page that show it.
import * as chart from "./chart.js";
import { byId, setClock, tellTimes } from "./dom.js";
import * as lists from "./lists.js";
import * as panels from "./panels.js";

const SILENCE_MS = 15000; // without a word, though it sends one each 4 s: the connection is dead
const AGAIN_MS = 1500;

let run = ""; // of the cloud
let change = 0; // the last one known
let events = 0; // arrived in all
let lastWord = 0;
let source = null;
let again = 0;
let sets = 0;

function open() {
  clearTimeout(again);
  source?.close();
  source = new EventSource("/page/stream");
  source.onmessage = (message) => { heard(); take(JSON.parse(message.data)); };
  source.addEventListener("beat", (beat) => { heard(); setClock(Number(beat.data)); });
  source.onerror = () => {
    lost();
    // The browser tries again by itself, unless it was refused.
    if (source.readyState === EventSource.CLOSED) again = setTimeout(open, AGAIN_MS);
  };
  lastWord = Date.now();
}

function heard() {
  lastWord = Date.now();
  if (byId("connection").textContent === "live") return;
  byId("connection").textContent = "live";
  byId("connection").className = "pill good";
  byId("lost").hidden = true;
  chart.connection(true);
  if (!panelsReady) startPanels();
}

function lost() {
  byId("connection").textContent = "connection lost";
  byId("connection").className = "pill bad";
  byId("lost").textContent = "The cloud does not answer. What stands here is from before; the page tries again by itself.";
  byId("lost").hidden = false;
  chart.connection(false);
}

let panelsReady = false;
async function startPanels() {
  panelsReady = true;
  try { await panels.start(); } catch (error) { panelsReady = false; }
}

function take(message) {
  setClock(message.now);
  if (message.run !== run || message.all) {
    if (run && message.run !== run) startPanels();
    run = message.run;
    change = 0;
    events = message.totals.events - message.events.length;
    chart.reset();
    lists.reset();
  }
  // After a lost connection the same may come twice: what is known is not taken again.
  if (message.change < change) return;
  message.events = message.events.filter((event) => event.change > change);
  change = message.change;
  const newEvents = message.totals.events - events;
  events = message.totals.events;
  chart.take(message);
  lists.take(message, newEvents);
  if (message.told && panelsReady) panels.showTold(message.told);
  totals(message);
  panels.offerSets();
  chart.draw();
}

function totals(message) {
  sets = lists.knownSets().length;
  for (const [name, value] of Object.entries({ ...message.totals, sets })) {
    const place = document.querySelector(`[data-total="${name}"]`);
    const text = value.toLocaleString("en");
    if (place && place.textContent !== text) place.textContent = text;
  }
  const nothing = message.totals.events === 0 && message.totals.objects === 0;
  byId("empty").hidden = !nothing;
  byId("empty-asked").hidden = sets === 0;
  byId("empty-asked").textContent = "A set has asked for its configuration, and has sent nothing yet: it sends when "
    + "\"min-size\" bytes have gathered or an event is \"max-delay\" seconds old, if its user has given consent.";
}

setInterval(() => {
  tellTimes();
  chart.draw();
  if (Date.now() - lastWord > SILENCE_MS) { lost(); open(); }
}, 1000);

// --- theme ---

const THEMES = { system: "system", light: "light", dark: "dark" };
function showTheme() { byId("theme").textContent = `Theme: ${THEMES[window.theme.choice]}`; }
byId("theme").addEventListener("click", () => {
  const order = Object.keys(THEMES);
  window.theme.choose(order[(order.indexOf(window.theme.choice) + 1) % order.length]);
  showTheme();
});
showTheme();

open();
