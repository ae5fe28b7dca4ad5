"use strict";
// The page of the fleet. All that comes from reports is put in as text, never as HTML; the gateway's fixed
// queries take numbers, and names in hexadecimal form.

const SILENT_AFTER_S = 600;     // two heartbeats missed
const KNOWN_FOR_S = 86400;      // a unit is forgotten a day after its last heartbeat
const REFRESH_MS = 60000;
const STEPS = 90;               // points of a curve over the chosen time
const TIME_STEPS_S = [1, 5, 15, 60, 300, 900, 3600, 14400, 86400];    // between the marks of a time axis

const element = id => document.getElementById(id);
const msPerUnit = () => Number(element("unit").value);
const number = (value, digits = 1) => Number(value).toLocaleString(undefined, {maximumFractionDigits: digits});
const percent = value => number(value, 2);
const moment = seconds => seconds ? new Date(seconds * 1000).toLocaleString(undefined,
    {dateStyle: "short", timeStyle: "medium"}) : "never";
const delay = value => number(value * (msPerUnit() || 1));
const delayUnit = () => msPerUnit() ? "ms" : "as reported";
const opinion = value => msPerUnit() ? percent(value) : "–";

function create(tag, properties, ...children) {
    const made = Object.assign(document.createElement(tag), properties);
    made.append(...children);
    return made;
}

function chosenTime() {
    const period = element("period").value;
    const now = Math.ceil(Date.now() / 1000) + 1;
    if (period !== "chosen")
        return {from: now - Number(period), to: now};
    const seconds = id => Math.floor(new Date(element(id).value).getTime() / 1000);
    return {from: seconds("from") || 0, to: seconds("to") || now};
}

// The rows of a query's answer, and how many there are without its limit.
async function ask(query, parameters) {
    let answer, text;
    try {
        // from the origin: the page's own address may have a password in it
        answer = await fetch(`${location.origin}/query/${query}?${new URLSearchParams(parameters)}`);
        text = await answer.text();
    } catch (error) {
        throw new Error(`The gateway does not answer (${error.message}).`);
    }
    if (answer.ok) {
        try {
            const {data, rows_before_limit_at_least: total = data.length} = JSON.parse(text);
            return [data, total];
        } catch {
            throw new Error(text.slice(-1000));     // the engine failed on the way
        }
    }
    if (text.startsWith("<"))   // the gateway's own page
        text = answer.status === 429 ? "Too many queries from here." : "No engine answers the gateway.";
    throw new Error(`${answer.status} ${text.replace(/\s+/g, " ")}`);
}

// Of each query: how often it was asked, when its part of the page was drawn, and why it failed if it did.
const parts = {};

// Asks, and draws the answer unless the query was asked again meanwhile. When it fails, its part of the page stays and
// says how old it is.
async function show(query, parameters, draw) {
    const part = parts[query] ??= {asked: 0}, turn = ++part.asked;
    let failure;
    try {
        const answer = await ask(query, parameters);
        if (turn === part.asked) {
            draw(...answer);
            part.drawn = Date.now() / 1000;
        }
    } catch (error) {
        failure = error.message;
    }
    if (turn !== part.asked)
        return;
    part.failure = failure;
    for (const place of document.querySelectorAll(`[data-query=${query}]`)) {
        place.classList.toggle("stale", Boolean(failure));
        place.style.setProperty("--age", part.drawn ? `" (of ${moment(part.drawn)})"` : '" (not read yet)"');
    }
    showFailures();
}

function showFailures() {
    const failed = Object.entries(parts).filter(([, {failure}]) => failure);
    const text = failed.length && [`Not up to date: ${failed.map(([query]) => query.replace("_", " ")).join(", ")}.`,
        ...new Set(failed.map(([, {failure}]) => failure))].join("\n");
    element("error").hidden = !text;
    if (text && element("error").textContent !== text)      // else it would be read out again
        element("error").textContent = text;
}

// Charts. A chart: [title, curves, range of the values]; a curve: [label, colour, dashes, points].
function drawCharts(place, charts, time) {
    for (const canvas of place.querySelectorAll("canvas"))
        Chart.getChart(canvas)?.destroy();
    place.replaceChildren();
    for (const chart of charts)
        drawChart(place, ...chart, time);
}

function drawChart(place, title, curves, range, {from, to}) {
    const color = name => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
    const grid = {color: color("--line")}, ticks = {color: color("--dim"), maxRotation: 0};
    const stepSize = TIME_STEPS_S.find(step => to - from <= 7 * step);
    const canvas = create("canvas", {role: "img", ariaLabel: title});
    place.append(create("div", {className: "chart"}, canvas));
    new Chart(canvas, {
        type: "line",
        data: {datasets: curves.map(([label, hue, borderDash, data]) => ({
            label, data, borderDash, borderColor: color(hue), backgroundColor: color(hue), borderWidth: 2,
            pointRadius: data.length < 3 ? 3 : 0, pointHitRadius: 8}))},
        options: {
            animation: false, maintainAspectRatio: false, parsing: false, normalized: true,
            interaction: {mode: "nearest", axis: "x", intersect: false},
            scales: {
                x: {type: "linear", min: from, max: to, grid,
                    ticks: {...ticks, stepSize, includeBounds: false, callback: value => timeLabel(value, to - from)}},
                y: {...range, grace: "5%", grid, ticks: {...ticks, maxTicksLimit: 6}}},
            plugins: {
                title: {display: true, text: title, color: color("--text"), align: "start"},
                legend: {display: curves.length > 1, align: "start",
                    labels: {color: color("--dim"), boxHeight: 0, boxWidth: 24}},
                tooltip: {callbacks: {title: items => moment(items[0].parsed.x)}}}}});
}

function timeLabel(seconds, span) {
    return new Date(seconds * 1000).toLocaleString(undefined, {
        ...(span > 86400 ? {month: "short", day: "numeric"} : {}), hour: "2-digit", minute: "2-digit",
        ...(span < 420 ? {second: "2-digit"} : {})});
}

const points = (rows, column, factor = 1) => rows.map(row => ({x: row.t, y: row[column] * factor}));

// The charts of a fleet and of a call; curves(column, factor) gives the curves of one.
const charts = curves => [["Loss (%)", curves("loss", 1), {min: 0}],
    [`Jitter (${delayUnit()})`, curves("jitter", msPerUnit() || 1), {min: 0}],
    [`Round trip (${delayUnit()})`, curves("rtt", msPerUnit() || 1), {min: 0}]];

function showTrend(rows, time) {
    const pair = (column, factor) => [["mean", "--one", [], points(rows, `${column}_mean`, factor)],
        ["95 % are below", "--two", [4, 4], points(rows, `${column}_p95`, factor)]];
    const mos = ["Estimated MOS", [["mean", "--one", [], points(rows, "mos")]], {min: 1, max: 4.5}];
    drawCharts(element("trend"), msPerUnit() ? [...charts(pair), mos] : charts(pair), time);

    const reports = rows.reduce((sum, row) => sum + row.reports, 0);
    const mean = (column, form) =>
        reports ? form(rows.reduce((sum, row) => sum + row[column] * row.reports, 0) / reports) : "–";
    const unit = msPerUnit() ? " ms" : "";
    element("mean-loss").textContent = mean("loss_mean", value => `${percent(value)} %`);
    element("mean-jitter").textContent = mean("jitter_mean", value => delay(value) + unit);
    element("mean-rtt").textContent = mean("rtt_mean", value => delay(value) + unit);
    element("mean-mos").textContent = mean("mos", opinion);
}

function showTotals([totals = {units: 0, calls: 0, reports: 0}]) {
    for (const [name, value] of Object.entries(totals))
        element(`${name}-count`).textContent = number(value);
}

// Tables. A column: [key, title, form of a value (without one it is text)]; choose: what a click on a row does.
const order = {calls: ["mos", 1], silent: ["last_heartbeat", 1], units: ["loss_mean", -1]};

function showTable(id, columns, rows, caption, choose) {
    const table = element(id), [key, sign] = order[id], focused = document.activeElement;
    const again = () => showTable(id, columns, rows, caption, choose);
    const cell = (tag, form, content, properties) =>
        create(tag, {className: form ? "" : "text", ...properties}, content);
    const head = columns.map(([column, title, form]) => {
        const sort = () => {
            order[id] = [column, column === key ? -sign : form ? -1 : 1];
            again();
        };
        const ariaSort = column === key ? (sign > 0 ? "ascending" : "descending") : null;
        return cell("th", form, create("button", {value: column, onclick: sort}, title), {scope: "col", ariaSort});
    });
    const compare = (a, b) => typeof a === "number" ? a - b : a.localeCompare(b);
    const lines = [...rows].sort((a, b) => sign * compare(a[key], b[key])).map(row => {
        const cells = columns.map(([column, , form], place) => {
            const title = form ? form(row[column]) : row[column];
            const opens = choose && place === 0;
            return cell("td", form, opens ? create("button", {value: row.key}, title || "(none)") : title, {title});
        });
        const line = create("tr", {ariaCurrent: choose && row.key === open?.key ? "true" : null}, ...cells);
        line.onclick = choose && (() => {
            choose(row);
            again();
        });
        return line;
    });
    const hadFocus = table.contains(focused);
    table.replaceChildren(create("caption", {}, rows.length ? caption : "None."),
        create("thead", {}, create("tr", {}, ...head)), create("tbody", {}, ...lines));
    if (hadFocus)
        [...table.querySelectorAll("button")].find(({value}) => value === focused.value)?.focus({preventScroll: true});
}

const share = (rows, total) => rows.length < total ? `${number(rows.length)} of ${number(total)}` : number(total);

function showCalls(rows) {
    showTable("calls", [["call", "Call"], ["unit", "Unit"], ["rtcp_name", "RTCP name"], ["mos", "MOS", opinion],
        ["loss_mean", "Loss %", percent], ["loss_max", "Loss max %", number],
        ["jitter_max", `Jitter max (${delayUnit()})`, delay], ["rtt_max", `RTT max (${delayUnit()})`, delay],
        ["reports", "Reports", number], ["until", "Last report", moment]], rows,
    `The ${rows.length} calls with the lowest estimated quality. Choose one to see its curves.`, row => {
        open = row;
        showCall(chosenTime()).then(() => element("call").focus());
    });
}

function showSilent(rows, total) {
    element("silent-count").textContent = number(total);
    element("silent-count").classList.toggle("alarm", total > 0);
    showTable("silent", [["unit", "Unit"], ["last_heartbeat", "Last heartbeat", moment],
        ["last_report", "Last report", moment]], rows,
    `${share(rows, total)} units without a heartbeat for more than ten minutes. Each had one in the day before, ` +
        "or has reports in the chosen time.");
}

function showUnits(rows, total) {
    showTable("units", [["unit", "Unit"], ["rtcp_name", "RTCP name"], ["loss_mean", "Loss %", percent],
        ["loss_max", "Loss max %", number], ["jitter_mean", `Jitter (${delayUnit()})`, delay],
        ["rtt_mean", `RTT (${delayUnit()})`, delay], ["calls", "Calls", number],
        ["reports", "Reports", number], ["until", "Last report", moment]], rows,
    `The highest mean loss: ${share(rows, total)} units.`);
}

let open = null;    // the row of the call whose curves are shown

function showCall({to}) {
    const row = open;
    const period = {from: row.since, to: Math.max(to, row.until + 1)};  // it may have gone on
    return show("call", {...period, sn: row.sn_hex, name: row.name_hex, gcid: row.gcid_hex}, (latest, total) => {
        if (row !== open)
            return;
        const reports = latest.reverse(), section = element("call");
        const begin = reports[0]?.t ?? row.since, end = reports.at(-1)?.t ?? row.until;
        const margin = Math.max(5, (end - begin) * 0.02);
        const ends = (column, factor) => [["near end", "--one", []], ["far end", "--two", [6, 3]]].map(
            ([label, ...style]) => [label, ...style,
                points(reports.filter(({type}) => type === label.replace(" ", "_")), column, factor)]);
        section.hidden = false;
        section.querySelector("h2").textContent = `Call ${row.call || "(none)"} of unit ${row.unit} ${row.rtcp_name}`;
        const far = [...new Set(reports.map(report => report.far_end || "unknown"))].join(", ");
        section.querySelector("p").textContent =
            `${moment(begin)} to ${moment(end)}, ${share(reports, total)} reports, far end ${far}`;
        drawCharts(section.querySelector(".charts"), charts(ends), {from: begin - margin, to: end + margin});
    });
}

function closeCall() {
    document.querySelector("tr[aria-current] button")?.focus();
    document.querySelector("tr[aria-current]")?.removeAttribute("aria-current");
    element("call").hidden = true;
    open = null;
    delete parts.call;
    showFailures();
}

function refresh() {
    const time = chosenTime(), ms = msPerUnit();
    const step = Math.max(1, Math.ceil((time.to - time.from) / STEPS));
    show("reporting", time, showTotals);
    show("silent", {...time, since: time.to - KNOWN_FOR_S, after: SILENT_AFTER_S}, showSilent);
    show("trend", {...time, ms, step}, rows => showTrend(rows, time));
    show("worst_calls", {...time, ms}, showCalls);
    show("units", time, showUnits);
    if (open)
        showCall(time);
}

element("period").addEventListener("change", () => {
    const chosen = element("period").value === "chosen";
    document.querySelectorAll(".chosen").forEach(label => { label.hidden = !chosen; });
    if (!chosen)
        refresh();
});
for (const id of ["from", "to", "unit"])
    element(id).addEventListener("change", () => {
        localStorage.setItem("unit", element("unit").value);
        refresh();
    });
element("refresh").onclick = refresh;
element("close").onclick = closeCall;
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", refresh);
element("unit").value = localStorage.getItem("unit") ?? "1";
setInterval(() => document.hidden || refresh(), REFRESH_MS);
refresh();
