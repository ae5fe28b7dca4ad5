"use strict";
// The page's charts. A chart: [title, curves, range of the values]; a curve: [label, colour, dashes, points].

const TIME_STEPS_S = [1, 5, 15, 60, 300, 900, 3600, 14400, 86400];    // between the ticks of a time axis

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
                    title: {display: true, text: `Time (${zone(to)})`, color: color("--dim")},
                    ticks: {...ticks, stepSize, includeBounds: false, callback: value => timeLabel(value, to - from)}},
                y: {...range, grid, ticks: {...ticks, maxTicksLimit: 6}}},
            plugins: {
                title: {display: true, text: title, color: color("--text"), align: "start"},
                legend: {display: curves.length > 1, align: "start",
                    // the boundary of a flat box is drawn there and back; at this width, the dashes coincide
                    labels: {color: color("--dim"), boxHeight: 0, boxWidth: 30}},
                tooltip: {callbacks: {title: items => moment(items[0].parsed.x)}}}}});
}

const timeLabel = (seconds, span) =>
    localTime(seconds).slice(span > 86400 ? 5 : 11, span < 420 ? 19 : 16).replace("T", " ");

const points = (rows, column, factor = 1, later = 0) =>
    rows.map(row => ({x: row.t + later, y: row[column] * factor}));

// The charts of a fleet and of a call. curves(column, factor) returns the curves of one chart.
const charts = curves => [["Loss (%)", curves("loss", 1), {min: 0}],
    [`Jitter (${delayUnit()})`, curves("jitter", scaled(1)), {min: 0}],
    [`Round trip (${delayUnit()})`, curves("rtt", scaled(1)), {min: 0}]];
