// Events over time by type: stacked bars on a canvas.
import { byId, clock, foreign, make, now, visible } from "./dom.js";

const LAST_COLOUR = 7; // of the types beyond the first seven, together
const KEPT_SECONDS = 3700;
const canvas = byId("chart");
const bins = { arrived: new Map(), happened: new Map() }; // second: Map(type: count)
const colours = new Map(); // type: number of its colour, in the order of their first arrival
const hidden = new Set(); // types that are not drawn
const legendItems = new Map();
let started = 0; // when the cloud started
let connected = true;
let lostAt = 0;

export function reset() {
  bins.arrived.clear();
  bins.happened.clear();
}

export function take(message) {
  started = message.started;
  for (const by of ["arrived", "happened"]) {
    for (const [second, counts] of message[by]) bins[by].set(second, new Map(Object.entries(counts)));
    const oldest = now() / 1000 - KEPT_SECONDS;
    if (bins[by].size > KEPT_SECONDS) {
      for (const second of bins[by].keys()) if (second < oldest) bins[by].delete(second);
    }
  }
  for (const [type, count] of Object.entries(message.types)) legend(type, count);
}

export function connection(isThere) {
  if (connected && !isThere) lostAt = now();
  connected = isThere;
}

function legend(type, count) {
  let item = legendItems.get(type);
  if (!item) {
    const colour = Math.min(colours.size, LAST_COLOUR);
    colours.set(type, colour);
    const number = make("b", {}, "0");
    const button = make("button", { type: "button", class: `k${colour}`, title: visible(type),
      "aria-pressed": "true" }, make("i"), foreign(type), number);
    button.addEventListener("click", () => {
      if (!hidden.delete(type)) hidden.add(type);
      button.setAttribute("aria-pressed", String(!hidden.has(type)));
      draw();
    });
    byId("legend").append(make("li", {}, button));
    item = { number };
    legendItems.set(type, item);
  }
  item.number.textContent = String(count);
}

// --- drawing ---

const binSeconds = (length) => (length <= 120 ? 2 : length <= 600 ? 10 : 60);

function collect(by, from, until, width) {
  const columns = new Map(); // start of a bar: counts by colour
  for (const [second, counts] of bins[by]) {
    if (second < from || second >= until) continue;
    const start = Math.floor(second / width) * width;
    const column = columns.get(start) ?? new Array(LAST_COLOUR + 1).fill(0);
    for (const [type, count] of counts) {
      if (!hidden.has(type)) column[colours.get(type) ?? LAST_COLOUR] += count;
    }
    columns.set(start, column);
  }
  return columns;
}

function niceTop(highest) {
  if (highest <= 4) return 4;
  const unit = 10 ** Math.floor(Math.log10(highest));
  return [1, 2, 4, 5, 10].map((step) => step * unit).find((top) => top >= highest) ?? 10 * unit;
}

export function draw() {
  const scale = window.devicePixelRatio || 1;
  const box = canvas.getBoundingClientRect();
  if (box.width < 10) return;
  const size = [Math.round(box.width * scale), Math.round(box.height * scale)];
  if (canvas.width !== size[0] || canvas.height !== size[1]) [canvas.width, canvas.height] = size;
  const style = getComputedStyle(document.documentElement);
  const colour = (name) => style.getPropertyValue(name).trim();
  const pen = canvas.getContext("2d");
  pen.setTransform(scale, 0, 0, scale, 0, 0);
  pen.clearRect(0, 0, box.width, box.height);
  pen.font = `11px ${getComputedStyle(document.body).fontFamily}`;

  const by = byId("chart-by").value;
  const length = Number(byId("chart-window").value);
  const width = binSeconds(length);
  const until = (Math.floor(now() / 1000 / width) + 1) * width;
  const from = until - length;
  const columns = collect(by, from, until, width);
  const sums = [...columns.values()].map((column) => column.reduce((a, b) => a + b, 0));
  const top = niceTop(Math.max(0, ...sums));
  const area = { left: 44, right: box.width - 6, top: 18, bottom: box.height - 22 };
  const x = (second) => area.left + ((second - from) / length) * (area.right - area.left);
  const y = (count) => area.bottom - (count / top) * (area.bottom - area.top);
  const tools = { pen, colour, area, x, y, from, until, width, length, top };

  axes(tools);
  const gaps = by === "arrived" ? unknownTimes(tools) : [];
  for (const gap of gaps) hatch(tools, gap);
  bars(tools, columns);
  const silent = by === "arrived" ? silences(tools, columns, gaps) : [];
  for (const silence of silent) mark(tools, silence);
  describe(sums, length, by, gaps.length + silent.length);
}

function axes({ pen, colour, area, x, y, from, until, width, length, top }) {
  pen.strokeStyle = colour("--grid");
  pen.fillStyle = colour("--soft");
  pen.lineWidth = 1;
  pen.textBaseline = "middle";
  pen.textAlign = "right";
  for (let step = 0; step <= 4; step++) {
    const count = (top / 4) * step;
    const at = Math.round(y(count)) + 0.5;
    pen.beginPath(); pen.moveTo(area.left, at); pen.lineTo(area.right, at); pen.stroke();
    if (Number.isInteger(count)) pen.fillText(count.toLocaleString("en"), area.left - 6, at);
  }
  pen.textAlign = "left";
  pen.fillText(`events in ${width} s`, 2, 7);
  pen.textAlign = "right";
  pen.fillText("UTC", area.right, 7);
  pen.textAlign = "center";
  const every = length / (area.right - area.left > 560 ? 10 : 4) ;
  const step = [20, 30, 60, 120, 150, 360, 600, 900].find((s) => s >= every) ?? 900;
  for (let second = Math.ceil(from / step) * step; second < until; second += step) {
    const at = x(second);
    if (at < area.left + 20 || at > area.right - 20) continue;
    pen.fillText(step % 60 ? clock(second * 1000) : clock(second * 1000).slice(0, 5), at, area.bottom + 13);
    pen.beginPath(); pen.moveTo(at, area.bottom); pen.lineTo(at, area.bottom + 4); pen.stroke();
  }
}

function bars({ pen, colour, x, y, width }, columns) {
  for (const [start, counts] of columns) {
    const left = x(start);
    const wide = Math.max(1, x(start + width) - left - 1.5);
    let under = 0;
    counts.forEach((count, number) => {
      if (count === 0) return;
      pen.fillStyle = colour(`--c${number}`);
      const high = y(under) - y(under + count);
      pen.fillRect(left, y(under + count), wide, Math.max(high, 1));
      under += count;
    });
  }
}

// Times of which this page knows nothing: before the cloud's start, and without a connection.
function unknownTimes({ from, until }) {
  const gaps = [];
  if (started / 1000 > from) gaps.push([from, started / 1000, "cloud not running"]);
  if (!connected) gaps.push([Math.max(from, lostAt / 1000), until, "not connected"]);
  return gaps;
}

function hatch({ pen, colour, area, x, until }, [from, to, words]) {
  const left = Math.max(area.left, x(from));
  const right = Math.min(area.right, x(Math.min(to, until)));
  if (right - left < 2) return;
  pen.save();
  pen.beginPath(); pen.rect(left, area.top, right - left, area.bottom - area.top); pen.clip();
  pen.strokeStyle = colour("--hatch");
  const high = area.bottom - area.top;
  for (let at = left - high; at < right; at += 8) {
    pen.beginPath(); pen.moveTo(at, area.bottom); pen.lineTo(at + high, area.top); pen.stroke();
  }
  pen.restore();
  label({ pen, colour }, words, left, right, (area.top + area.bottom) / 2);
}

function label({ pen, colour }, words, left, right, at) {
  const wide = pen.measureText(words).width + 10;
  if (wide > right - left) return;
  pen.fillStyle = colour("--card");
  pen.fillRect((left + right - wide) / 2, at - 8, wide, 16);
  pen.fillStyle = colour("--soft");
  pen.textAlign = "center";
  pen.fillText(words, (left + right) / 2, at);
}

// Stretches in which the cloud ran and nothing arrived: the longest of them, from an eighth on.
function silences({ from, until, width, length }, columns, gaps) {
  const begin = gaps.length && gaps[0][2] === "cloud not running" ? gaps[0][1] : from;
  const end = connected ? until - width : lostAt / 1000;
  const found = [];
  let last = begin;
  for (const start of [...columns.keys()].sort((a, b) => a - b).concat([end])) {
    if (start - last >= length / 8) found.push([last, start]);
    last = Math.max(last, start + width);
  }
  return found;
}

function mark({ pen, colour, area, x }, [from, to]) {
  const left = x(from) + 3;
  const right = x(to) - 3;
  const at = area.bottom - 12;
  pen.strokeStyle = colour("--soft");
  pen.setLineDash([2, 4]);
  pen.beginPath(); pen.moveTo(left, at); pen.lineTo(right, at); pen.stroke();
  pen.setLineDash([]);
  const seconds = Math.round(to - from);
  const words = seconds < 60 ? `${seconds} s` : `${Math.floor(seconds / 60)} min ${seconds % 60} s`;
  label({ pen, colour }, `nothing for ${words}`, left, right, at);
}

let described = "";
function describe(sums, length, by, gaps) {
  const total = sums.reduce((a, b) => a + b, 0);
  const text = `Events over time by type. In the last ${length / 60} minutes ${total} events by `
    + `${by === "arrived" ? "arrival" : "their own time"}, at most ${Math.max(0, ...sums)} in `
    + `${binSeconds(length)} seconds; ${gaps} longer gaps. The totals by type follow as a list.`;
  if (text !== described) canvas.setAttribute("aria-label", text);
  described = text;
}

for (const id of ["chart-by", "chart-window"]) byId(id).addEventListener("change", draw);
document.addEventListener("theme", draw);
new ResizeObserver(draw).observe(canvas);
