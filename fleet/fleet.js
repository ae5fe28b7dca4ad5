"use strict";
// The page of the fleet. All that comes from reports is put in as text, never as HTML; the gateway's fixed
// queries take numbers, and names in hexadecimal form.

const SILENT_AFTER_S = 600;     // two heartbeats missed
const KNOWN_FOR_S = 86400;      // a unit is forgotten a day after its last heartbeat
const REFRESH_MS = 60000;
const STEPS = 90;               // points of a curve over the chosen time

const element = id => document.getElementById(id);
const msPerUnit = () => Number(element("unit").value);
const color = name => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
const number = (value, digits = 1) => Number(value).toLocaleString(undefined, {maximumFractionDigits: digits});
const moment = seconds => seconds ? new Date(seconds * 1000).toLocaleString(undefined,
    {dateStyle: "short", timeStyle: "medium"}) : "never";
const delay = value => number(value * (msPerUnit() || 1));
const delayUnit = () => msPerUnit() ? "ms" : "as reported";
const opinion = value => msPerUnit() ? number(value, 2) : "–";

function chosenTime() {
    const period = element("period").value;
    const now = Math.ceil(Date.now() / 1000) + 1;
    if (period !== "chosen")
        return {from: now - Number(period), to: now};
    const seconds = id => Math.floor(new Date(element(id).value).getTime() / 1000);
    return {from: seconds("from") || 0, to: seconds("to") || now};
}

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
            return JSON.parse(text).data;
        } catch {
            throw new Error(`${query}: ${text.slice(-1000)}`);  // the engine failed on the way
        }
    }
    if (text.startsWith("<"))   // the gateway's own page
        text = answer.status === 429 ? "Too many queries from here." : "No engine answers the gateway.";
    throw new Error(`${query}: ${answer.status} ${text}`);
}

function showError(error) {
    element("error").hidden = !error;
    element("error").textContent = error ? error.message : "";
}

// Charts, which are drawn anew with each change.
const drawn = new Map();

function timeLabel(seconds, span) {
    const options = span > 172800 ? {month: "short", day: "numeric"} :
        {hour: "2-digit", minute: "2-digit", ...(span < 600 ? {second: "2-digit"} : {})};
    return new Date(seconds * 1000).toLocaleString(undefined, options);
}

// curves: [label, colour, dashes, points]
function drawChart(place, title, curves, {from, to}, range = {min: 0}) {
    let box = place.querySelector(`[data-title="${title}"]`);
    if (!box) {
        box = document.createElement("div");
        box.className = "chart";
        box.dataset.title = title;
        box.append(document.createElement("canvas"));
        place.append(box);
    }
    box.hidden = false;
    drawn.get(box)?.destroy();
    const canvas = box.firstChild;
    canvas.setAttribute("role", "img");
    canvas.setAttribute("aria-label", title);
    const grid = {color: color("--line")}, ticks = {color: color("--dim"), maxTicksLimit: 6, maxRotation: 0};
    drawn.set(box, new Chart(canvas, {
        type: "line",
        data: {datasets: curves.map(([label, hue, borderDash, data]) => ({
            label, data, borderDash, borderColor: color(hue), backgroundColor: color(hue), borderWidth: 2,
            pointRadius: data.length < 3 ? 3 : 0, pointHitRadius: 8}))},
        options: {
            animation: false, maintainAspectRatio: false, parsing: false, normalized: true,
            interaction: {mode: "nearest", axis: "x", intersect: false},
            scales: {
                x: {type: "linear", min: from, max: to, grid,
                    ticks: {...ticks, callback: value => timeLabel(value, to - from)}},
                y: {...range, grace: "5%", grid, ticks}},
            plugins: {
                title: {display: true, text: title, color: color("--text"), align: "start"},
                legend: {display: curves.length > 1, align: "start",
                    labels: {color: color("--dim"), boxHeight: 0, boxWidth: 24}},
                tooltip: {callbacks: {title: items => moment(items[0].parsed.x)}}}}}));
}

const points = (rows, column, scale = 1) => rows.map(row => ({x: row.t, y: row[column] * scale}));

function showTrend(rows, time) {
    const place = element("trend"), scale = msPerUnit() || 1;
    const pair = (name, factor) => [["mean", "--one", [], points(rows, `${name}_mean`, factor)],
        ["95 % are below", "--two", [4, 4], points(rows, `${name}_p95`, factor)]];
    drawChart(place, "Loss (%)", pair("loss", 1), time);
    drawChart(place, `Jitter (${delayUnit()})`, pair("jitter", scale), time);
    drawChart(place, `Round trip (${delayUnit()})`, pair("rtt", scale), time);
    drawChart(place, "Estimated MOS", [["mean", "--one", [], points(rows, "mos")]], time, {min: 1, max: 4.5});
    for (const box of place.children) {
        const other = msPerUnit() ? "as reported" : "ms";
        box.hidden = box.dataset.title.includes(`(${other})`) || (!msPerUnit() && box.dataset.title.includes("MOS"));
    }
}

function showTiles(reporting, silent, trend) {
    const mean = column => trend.reduce((sum, row) => sum + row[column] * row.reports, 0) /
        trend.reduce((sum, row) => sum + row.reports, 0);
    const values = trend.length ? {loss: number(mean("loss_mean"), 2) + " %", jitter: delay(mean("jitter_mean")),
        rtt: delay(mean("rtt_mean")), mos: opinion(mean("mos"))} : {loss: "–", jitter: "–", rtt: "–", mos: "–"};
    const tiles = [[number(reporting.units), "units report"], [number(silent.length), "silent units", silent.length > 0],
        [number(reporting.calls), "calls"], [number(reporting.reports), "reports"], [values.loss, "mean loss"],
        [values.jitter, `mean jitter, ${delayUnit()}`], [values.rtt, `mean round trip, ${delayUnit()}`],
        [values.mos, "estimated MOS"]];
    element("tiles").replaceChildren(...tiles.map(([value, name, alarm]) => {
        const tile = document.createElement("div"), strong = document.createElement("b");
        tile.className = "tile";
        strong.textContent = value;
        strong.classList.toggle("alarm", Boolean(alarm));
        const label = document.createElement("span");
        label.textContent = name;
        tile.append(strong, label);
        return tile;
    }));
}

// Tables. A column: [key, title, form of a value (without one it is text)]; chosen: what a row opens.
const order = {calls: ["mos", 1], silent: ["last_heartbeat", 1], units: ["loss_mean", -1]};

function showTable(id, columns, rows, caption, chosen) {
    const table = element(id), [key, sign] = order[id];
    const sorted = [...rows].sort((a, b) => sign * (typeof a[key] === "number" ? a[key] - b[key] :
        a[key].localeCompare(b[key])));
    const head = document.createElement("tr");
    for (const [column, title, form] of columns) {
        const cell = document.createElement("th"), button = document.createElement("button");
        cell.scope = "col";
        cell.className = form ? "" : "text";
        if (column === key)
            cell.setAttribute("aria-sort", sign > 0 ? "ascending" : "descending");
        button.textContent = title;
        button.addEventListener("click", () => {
            order[id] = [column, column === key ? -sign : form ? -1 : 1];
            showTable(id, columns, rows, caption, chosen);
            [...table.querySelectorAll("th button")].find(other => other.textContent === title).focus();
        });
        cell.append(button);
        head.append(cell);
    }
    const body = document.createElement("tbody");
    for (const row of sorted) {
        const line = body.insertRow();
        for (const [column, , form] of columns) {
            const cell = line.insertCell(), text = form ? form(row[column]) : row[column];
            cell.className = form ? "" : "text";
            if (chosen && column === columns[0][0]) {
                const button = document.createElement("button");
                button.textContent = text || "(none)";
                cell.append(button);
            } else {
                cell.textContent = cell.title = text;
            }
        }
        if (chosen)
            line.addEventListener("click", () => chosen(row, line));
    }
    table.replaceChildren(table.createTHead(), body);
    table.tHead.replaceChildren(head);
    table.createCaption().textContent = rows.length ? caption : "None.";
}

let open = null;    // the call whose curves are shown

async function showCall(row) {
    open = row;
    const margin = Math.max(5, (row.until - row.since) * 0.02);
    const time = {from: Math.floor(row.since - margin), to: Math.ceil(row.until + margin)};
    const rows = await ask("call", {...time, sn: row.sn_hex, name: row.name_hex, gcid: row.gcid_hex});
    const section = element("call"), place = section.querySelector(".charts"), scale = msPerUnit() || 1;
    section.hidden = false;
    section.querySelector("h2").textContent = `Call ${row.call || "(none)"} of unit ${row.unit} ${row.rtcp_name}`;
    section.querySelector("p").textContent = `${moment(row.since)} to ${moment(row.until)}, ${rows.length} reports, ` +
        `far end ${[...new Set(rows.map(report => report.far_end))].join(", ")}`;
    const ends = (column, factor) => [["near end", "--one", []], ["far end", "--two", [6, 3]]].map(
        ([label, hue, dash]) => [label, hue, dash,
            points(rows.filter(report => report.type === label.replace(" ", "_")), column, factor)]);
    place.replaceChildren();
    drawChart(place, "Loss (%)", ends("loss", 1), time);
    drawChart(place, `Jitter (${delayUnit()})`, ends("jitter", scale), time);
    drawChart(place, `Round trip (${delayUnit()})`, ends("rtt", scale), time);
}

async function refresh() {
    const time = chosenTime(), ms = msPerUnit();
    try {
        const step = Math.max(1, Math.ceil((time.to - time.from) / STEPS));
        const [trend, reporting, silent, calls, units] = await Promise.all([
            ask("trend", {...time, ms, step}), ask("reporting", time), ask("silent", {...time, since: time.to - KNOWN_FOR_S, after: SILENT_AFTER_S}),
            ask("worst_calls", {...time, ms}), ask("units", time)]);
        showError(null);
        showTiles(reporting[0] ?? {units: 0, calls: 0, reports: 0}, silent, trend);
        showTrend(trend, time);
        showTable("calls", [["call", "Call"], ["unit", "Unit"], ["rtcp_name", "RTCP name"], ["mos", "MOS", opinion],
            ["loss_mean", "Loss %", value => number(value, 2)], ["loss_max", "Loss max %", number],
            ["jitter_max", `Jitter max (${delayUnit()})`, delay], ["rtt_max", `RTT max (${delayUnit()})`, delay],
            ["reports", "Reports", number], ["until", "Last report", moment]], calls,
        "Lowest estimated quality first. Choose a call to see its curves.", (row, line) => {
            document.querySelector("tr[aria-current]")?.removeAttribute("aria-current");
            line.setAttribute("aria-current", "true");
            showCall(row).then(() => element("call").focus(), showError);
        });
        showTable("silent", [["unit", "Unit"], ["last_heartbeat", "Last heartbeat", moment],
            ["last_report", "Last report", moment]], silent, "No heartbeat for more than ten minutes, but one in the day before.");
        showTable("units", [["unit", "Unit"], ["rtcp_name", "RTCP name"], ["loss_mean", "Loss %", value => number(value, 2)],
            ["loss_max", "Loss max %", number], ["jitter_mean", `Jitter (${delayUnit()})`, delay],
            ["rtt_mean", `RTT (${delayUnit()})`, delay], ["calls", "Calls", number],
            ["reports", "Reports", number], ["until", "Last report", moment]], units, "Highest mean loss first.");
        if (open)
            await showCall(open);
    } catch (error) {
        showError(error);
    }
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
element("refresh").addEventListener("click", refresh);
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", refresh);
element("unit").value = localStorage.getItem("unit") ?? "1";
setInterval(() => document.hidden || refresh(), REFRESH_MS);
refresh();
