"use strict";
// The page of the fleet. The address contains the viewer's selection, so a link shows the same. The gateway's fixed
// queries take numbers, and texts in hexadecimal form. All times are by the store's clock, not the browser's.

const DAY_S = 86400;
const SILENT_AFTER_S = 600;                     // two heartbeats missed
const HEARTBEATS_S = 7 * DAY_S;                 // how far back the page looks for a unit's last heartbeat
const POLL_MS = 3000, LATE_MS = 5000;           // a store that does not answer is noticed within 10 s
const TIMEOUT_MS = 40000;                       // a node that hangs delays answers, but they arrive
const REFRESH_S = 60, RETRY_S = 10;
const STEPS = 90;                               // points of a curve over the chosen time
const DEFAULTS = {period: "900", from: "", to: "", site: "", unit: "", find: "", call: "", scale: "1"};

const chosen = name => new URLSearchParams(location.hash.slice(1)).get(name) ?? DEFAULTS[name];
const address = changes => "#" + new URLSearchParams(Object.keys(DEFAULTS)
    .map(name => [name, String(changes[name] ?? chosen(name))]).filter(([name, value]) => value !== DEFAULTS[name]));
const go = changes => { location.hash = address(changes); };

let clock;              // the store's clock minus performance.now(), in seconds
const now = () => clock + performance.now() / 1000;
let down = [];          // the shards that do not answer
let expected = {};      // the rows of the expected units by their serial numbers
let rounds = 0;         // number of refreshes started
let finished = -Infinity;   // when the last round completed; Infinity during a round, -Infinity before it
let unreachable = "";   // why the store does not answer, or empty

const hex = text => [...new TextEncoder().encode(text)].map(byte => byte.toString(16).padStart(2, "0")).join("");
const unhex = digits =>
    new TextDecoder().decode(Uint8Array.from(digits.match(/../g) ?? [], pair => parseInt(pair, 16)));
const age = seconds => seconds < 120 ? `${Math.max(0, Math.round(seconds))} s`
    : seconds < 7200 ? `${Math.round(seconds / 60)} min` : `${number(seconds / 3600)} h`;

function chosenTime() {
    const end = Math.ceil(now()) + 1, period = chosen("period");
    return period === "chosen" ? {from: Math.max(DAY_S, Number(chosen("from"))), to: Number(chosen("to")) || end}
        : {from: end - Number(period), to: end};
}

// The rows of a query's answer, and how many there are without its limit.
async function ask(query, parameters) {
    // from the origin, because the page's own address may contain a password
    const url = `${location.origin}/query/${query}?${new URLSearchParams(parameters)}`;
    const text = await (await fetch(url, {signal: AbortSignal.timeout(TIMEOUT_MS)})).text();
    try {
        const {data, rows_before_limit_at_least: total = data.length} = JSON.parse(text);
        return [data, total];
    } catch {   // the gateway's own page, or the node's error
        throw new Error(/<title>(.*?)<\/title>/.exec(text)?.[1] ?? text.replace(/\s+/g, " ").slice(-300));
    }
}

const reasonOf = ({name, message}) => name === "TimeoutError" ? "No answer in time." : message;

// For each query: when its part of the page was drawn, and why it failed, if it did.
const parts = {};
const placesOf = query => document.querySelectorAll(`[data-query=${query}]`);

// Asks with each set of parameters and draws the answers, unless a new round has started: the selection may have
// changed. When the query fails, its part of the page stays as it is and shows its age.
async function show(query, parameters, draw) {
    const part = parts[query] ??= {}, mine = rounds;
    let failure = "";
    try {
        const answers = await Promise.all([parameters].flat().map(each => ask(query, each)));
        if (mine === rounds) {
            draw(...answers.flat());
            part.drawn = now();
        }
    } catch (error) {
        failure = reasonOf(error);
    }
    if (mine !== rounds)
        return;
    part.failure = failure;
    placesOf(query).forEach(place => { place.ariaBusy = null; });
    showState();
}

function showState() {
    const failed = Object.entries(parts).filter(([, {failure}]) => failure);
    for (const [query, {drawn, failure}] of Object.entries(parts))
        for (const place of placesOf(query)) {
            place.classList.toggle("stale", Boolean(failure || unreachable));
            place.style.setProperty("--age",
                drawn ? `" (as of ${moment(drawn)}, ${age(now() - drawn)} ago)"` : '" (no data yet)"');
        }
    const drawn = Object.values(parts).map(part => part.drawn).filter(Boolean);
    if (drawn.length)
        element("age").textContent = `Data as of ${moment(Math.min(...drawn))}, ${age(now() - Math.min(...drawn))} old`;
    const reasons = new Set(unreachable ? [unreachable] : failed.map(([, {failure}]) => failure));
    const text = reasons.size ? [unreachable ? "The store does not answer. This page shows old data."
        : "Some queries failed. The marked parts of this page show old data.",
    ...reasons, "The page retries automatically."].join("\n") : "";
    element("error").hidden = !text;
    if (element("error").textContent !== text)      // a screen reader would repeat it
        element("error").textContent = text;
}

// --- the parts of the page -----------------------------------------------------------------------

const toUnit = ({unit}) => address({unit, call: ""});
const toSite = ({site}) => site && address({site, unit: "", call: ""});
const toCall = row => row.id && address({call: [row.id, row.since, row.until].join("_")});
const withUnit = row => ({...row, ...expected[row.unit] ??
    {unit_name: Object.keys(expected).length ? "(unexpected)" : "", site: ""}});
const atTime = since => Object.assign(value => value ? moment(value) : `none since ${moment(since)}`, {time: true});
const UNIT = ["unit", "Unit", null, toUnit], NAMES = [["unit_name", "Name"], ["site", "Site", null, toSite]];
const RTCP_NAME = ["rtcp_name", "RTCP name"], CALL = ["call", "Call", null, toCall], TID = ["terminal", "TID"];
const highest = () => [["mos_min", "Min MOS", opinion], ["loss_max", "Max loss (%)", percent],
    ["jitter_max", `Max jitter (${delayUnit()})`, delay], ["rtt_max", `Max round trip (${delayUnit()})`, delay]];
const means = () => [["mos_mean", "Mean MOS", opinion], ["loss_mean", "Mean loss (%)", percent],
    ["jitter_mean", `Mean jitter (${delayUnit()})`, delay], ["rtt_mean", `Mean round trip (${delayUnit()})`, delay]];
const TRAFFIC = [["calls", "Calls", number], ["reports", "Reports", number]];
const LAST = ["until", "Last report", atTime()];
const NO_REPORTS = "No reports match the selection.";

function fillSelect(id, all, options) {
    const select = element(id), value = chosen(id);
    const wanted = new Map([["", all], ...options, ...(value ? [[value, new Map(options).get(value) ?? value]] : [])]);
    const key = JSON.stringify([...wanted]);
    if (select.dataset.options !== key)     // replacing them would close an open list
        select.replaceChildren(...[...wanted].map(([option, text]) => create("option", {value: option}, text)));
    select.dataset.options = key;
    select.value = value;
}

const isMissing = ({unit}) => down.some(({missing}) => missing.includes(unit));

function showExpected(rows) {
    expected = Object.fromEntries(rows.map(row => [row.unit, row]));
    const site = chosen("site");
    fillSelect("site", "all", [...new Set(rows.map(row => row.site))].filter(Boolean).map(name => [name, name]));
    fillSelect("unit", "all", rows.filter(row => !site || row.site === site)
        .map(row => [row.unit, `${row.unit} ${row.unit_name}`]));
    const lost = rows.filter(isMissing);
    element("missing").hidden = !down.length;
    countIn("expected", `Nodes down: ${down.flatMap(({nodes}) => nodes).join(", ")}. Missing units: `, lost.length,
        value => rows.length ? number(value) : "unknown (no units.csv)");
    showTable("missing", [UNIT, ...NAMES], lost, "The page shows no data from a unit whose shard is down.");
}

function showSilent(rows, {from, to}) {
    const known = rows.filter(row => !isMissing(row)).map(row => ({...row, state:
        [row.silent && (row.last_heard ? `silent for ${age(to - row.last_heard)}` : "silent"),
            !row.expected && "unexpected"].filter(Boolean).join(", ")}));
    countIn("silent", "Silent units: ", known.filter(row => row.silent).length);
    showTable("silent", [UNIT, ["state", "State"], ...NAMES,
        ["last_heartbeat", "Last heartbeat", atTime(to - HEARTBEATS_S)], ["last_report", "Last report", atTime(from)]],
    known, `A unit is silent when nothing has arrived from it for more than ${SILENT_AFTER_S / 60} minutes. ` +
        `Unexpected units (not in units.csv): ${number(known.filter(row => !row.expected).length)}.`);
}

function showForeign(rows) {
    document.querySelector("[data-query=foreign]").hidden = !rows.length;
    countIn("foreign", "Batches with another unit's serial number: ", rows.reduce((sum, row) => sum + row.batches, 0));
    showTable("foreign", [["user", "Sent by"], ["address", "From address"], ["unit", "As unit", null, toUnit], ...NAMES,
        ["batches", "Batches", number], ["since", "First", atTime()], ["until", "Last", atTime()]], rows.map(withUnit),
    "The store trusts the serial number in a line. Check the serial number and the URL of the sender.");
}

// Sets the heading of a query's part, with a count.
function countIn(query, title, count, form = value => value ? number(value) : "none") {
    document.querySelector(`[data-query=${query}] h2`).replaceChildren(title,
        create("span", {className: count ? "bad" : ""}, form(count)));
}

function showCalls(rows) {
    const bad = rows.filter(({severity}) => severity >= 1).length;
    countIn("worst_calls", "Worst calls: ", bad, count => count < 100 ? `${count} bad` : "100 or more bad");
    showTable("calls", [CALL, UNIT, ...highest(), ...NAMES, TID, RTCP_NAME, ["loss_mean", "Mean loss (%)", percent],
        TRAFFIC[1], LAST], rows.map(withUnit), rows.length ? "Worst calls first, ranked by the highest loss, jitter or " +
        "round-trip time of each call, relative to the threshold for “bad”." : NO_REPORTS);
}

function showUnits(rows, total) {
    showTable("units", [UNIT, ...means(), ["loss_max", "Max loss (%)", percent], ...NAMES, ...TRAFFIC, LAST],
        rows.map(withUnit), rows.length ? `Lowest mean MOS first. Units: ${share(rows.length, total)}.` : NO_REPORTS);
}

const showSites = rows => showTable("sites", [NAMES[1], ...means(), ["units", "Units", number], ...TRAFFIC], rows,
    rows.length ? "Lowest mean MOS first. Unexpected units have no site." : NO_REPORTS);

function showFound(rows, total) {
    const text = chosen("find"), has = value => value.toLowerCase().includes(text.toLowerCase());
    const units = Object.values(expected).filter(row => has(row.unit) || has(row.unit_name) || has(row.site));
    element("found").querySelector("h2").textContent =
        `Search for “${text}”. Units: ${number(units.length)}, calls: ${share(rows.length, total)}`;
    showTable("found", [CALL, UNIT, ...highest(), ...NAMES, TID, RTCP_NAME, TRAFFIC[1], LAST],
        [...units.map(unit => ({...unit, call: "", terminal: "", rtcp_name: ""})), ...rows.map(withUnit)],
        "Units by serial number, name or site. Calls of the selected time, site and unit by GCID, serial number or " +
        "RTCP name, latest first.");
}

function showTiles(id, tiles) {
    element(id).replaceChildren(...tiles.map(([title, value, before]) => create("div", {}, create("b", {}, value),
        create("span", {}, title, create("br"), "24 h earlier: ", before))));
}

function showTotals([today], _, [before]) {
    const titles = {units: `Units heard (expected: ${number(today.expected)})`, calls: "Calls", reports: "Reports"};
    showTiles("totals", Object.keys(titles).map(key => [titles[key], number(today[key]), number(before[key])]));
}

function showTrend(rows, before, time) {
    const unit = chosen("unit"), site = chosen("site"), {unit_name: name} = withUnit({unit});
    document.querySelector("[data-query=trend] h2").textContent =
        (unit ? `Unit ${unit} ${name}` : site ? `Site ${site}` : "The whole fleet") + " over time";
    const curves = (column, factor) => [["mean", "--one", [], points(rows, `${column}_mean`, factor)],
        ...(column === "mos" ? [] : [["95th percentile", "--two", [4, 4], points(rows, `${column}_p95`, factor)]]),
        ["24 h earlier", "--dim", [1, 3], points(before, `${column}_mean`, factor, DAY_S)]];
    drawCharts(element("trend"), [...charts(curves), ...(msPerUnit()
        ? [["MOS (estimate)", curves("mos", 1), {min: 1, max: 4.5}]] : [])], time);
    const mean = (from, column) => from.reduce((sum, row) => sum + row[column] * row.reports, 0) /
        from.reduce((sum, row) => sum + row.reports, 0);
    showTiles("means", means().map(([column, title, form]) => [title, ...[rows, before].map(from =>
        from.length ? figure(column, mean(from, column), form) : "–")]));
}

// The query, its parameters and the drawing function for the chosen call.
function callQuery({to}, opened) {
    const [id, since, until] = chosen("call").split("_"), [sn, gcid, tid] = id.split(".");
    const period = {from: Number(since), to: Math.max(to, Number(until) + 1)};      // the call may continue
    return ["call", {...period, sn, gcid, tid}, (latest, total) => {
        const reports = latest.reverse(), section = element("call");
        const begin = reports[0]?.t ?? Number(since), end = reports.at(-1)?.t ?? Number(until);
        const margin = Math.max(5, (end - begin) * 0.02);
        const ends = (column, factor) => [["near end", "--one", []], ["far end", "--two", [6, 3]]].map(
            ([label, ...style]) => [label, ...style,
                points(reports.filter(({type}) => type === label.replace(" ", "_")), column, factor)]);
        const all = key => [...new Set(reports.map(report => report[key] || "unknown"))].join(", ");
        section.querySelector("h2").textContent = `Call ${unhex(gcid) || "(none)"} of unit ${unhex(sn)}`;
        section.querySelector("p").textContent = [`${moment(begin)} to ${moment(end)}`,
            `Reports: ${share(reports.length, total)}`, `TID: ${unhex(tid) || "unknown"}`,
            `Far end: ${all("far_end")}`, `RTCP name: ${all("name")}`].join(". ");
        drawCharts(section.querySelector(".charts"), charts(ends), {from: begin - margin, to: end + margin});
        if (opened)
            section.focus();
    }];
}

// --- refresh -------------------------------------------------------------------------------------

// Asks one query after another, to keep the load on the store low and to show silent units first. A new selection
// cancels the current round.
async function refresh(opened = false) {
    const mine = ++rounds;
    finished = -Infinity;
    if (clock === undefined || unreachable)
        return;
    const time = chosenTime(), step = Math.max(1, Math.ceil((time.to - time.from) / STEPS));
    const all = {...time, site: hex(chosen("site")), unit: hex(chosen("unit")), ms: msPerUnit()};
    const before = {...all, from: time.from - DAY_S, to: time.to - DAY_S}, find = chosen("find"), call = chosen("call");
    finished = Infinity;
    element("call").hidden = !call;
    element("found").hidden = !find;
    for (const [query, used] of [["call", call], ["search", find]])
        if (!used)
            delete parts[query];
    for (const [query, parameters, draw] of [
        ["expected", {}, showExpected],
        ...(find ? [["search", {...all, find: hex(find)}, showFound]] : []),
        ...(call ? [callQuery(time, opened)] : []),
        ["silent", {...all, since: time.to - HEARTBEATS_S, after: SILENT_AFTER_S}, rows => showSilent(rows, time)],
        ["foreign", all, showForeign],
        ["worst_calls", all, showCalls],
        ["units", all, showUnits],
        ["sites", all, showSites],
        ["reporting", [all, before], showTotals],
        ["trend", [{...all, step}, {...before, step}], (rows, _, earlier) => showTrend(rows, earlier, time)]]) {
        await show(query, parameters, draw);
        if (mine !== rounds)
            return;
    }
    finished = performance.now() / 1000;
}

async function poll() {
    const late = setTimeout(() => showUnreachable("No answer in time."), LATE_MS);
    try {
        const [rows] = await ask("shards", {}), wereDown = down.length, uptime = performance.now() / 1000;
        const waited = uptime - finished;
        const failed = unreachable || Object.values(parts).some(part => part.failure);
        clock = Math.max(...rows.map(row => row.now)) - uptime;
        down = rows.filter(row => !row.up);
        showUnreachable("");
        if (down.length !== wereDown || !document.hidden && waited > (failed ? RETRY_S : REFRESH_S))
            refresh();
    } catch (error) {
        showUnreachable(reasonOf(error));
    }
    clearTimeout(late);
    setTimeout(poll, POLL_MS);
}

function showUnreachable(reason) {
    unreachable = reason;
    showState();
}

function readAddress() {
    for (const id of ["period", "find", "scale"])
        element(id).value = chosen(id);
    for (const id of ["from", "to"])
        element(id).value = /^\d{1,10}$/.test(chosen(id)) ? localTime(Number(chosen(id))) : "";
    document.querySelectorAll(".chosen").forEach(label => { label.hidden = chosen("period") !== "chosen"; });
    element("legend").textContent = legend();
}

addEventListener("hashchange", ({oldURL, newURL}) => {
    const call = url => new URLSearchParams(new URL(url).hash.slice(1)).get("call");
    const opened = chosen("call") && call(oldURL) !== call(newURL);
    readAddress();
    document.querySelectorAll("[data-query]").forEach(place => { place.ariaBusy = "true"; });
    refresh(opened);
});
element("period").onchange = () => {
    const period = element("period").value;
    go({period, ...(period === "chosen" ? chosenTime() : {from: "", to: ""})});
};
for (const id of ["site", "unit", "find", "scale"])
    element(id).onchange = () => go({[id]: element(id).value, ...(id === "site" ? {unit: ""} : {})});
for (const id of ["from", "to"])
    element(id).onchange = () => go({[id]: Math.floor(new Date(element(id).value).getTime() / 1000) || ""});
element("choice").onsubmit = event => {
    event.preventDefault();
    refresh();
};
element("close").onclick = () => {
    document.querySelector("tr[aria-current] a")?.focus();
    go({call: ""});
};
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => refresh());
readAddress();
poll();
