"use strict";
// Formats of figures, and the tables of the page. Text from reports and from units.csv becomes text nodes, never HTML.

const ROWS_SHOWN = 10;
// A figure is fair from the first value, and bad from the second; a MOS, below them.
const LIMITS = {loss: [0.5, 1], jitter: [15, 30], rtt: [150, 300], mos: [4, 3.6]};

const element = id => document.getElementById(id);
const msPerUnit = () => Number(element("scale").value);
const scaled = value => value * (msPerUnit() || 1);
const delayUnit = () => msPerUnit() ? "ms" : "as reported";
const number = (value, digits = 1) => Number(value).toLocaleString(undefined, {maximumFractionDigits: digits});
const percent = value => number(value, 2);
const delay = value => number(scaled(value));
const opinion = value => msPerUnit() ? value.toFixed(2) : "–";
const localTime = seconds => new Date((seconds - new Date(seconds * 1000).getTimezoneOffset() * 60) * 1000)
    .toISOString().slice(0, 19);
const zone = seconds => new Intl.DateTimeFormat("en", {timeZoneName: "short"})
    .formatToParts(seconds * 1000).find(({type}) => type === "timeZoneName").value;
const moment = seconds => `${localTime(seconds).replace("T", " ")} ${zone(seconds)}`;
const share = (shown, total) => shown < total ? `${number(shown)} of ${number(total)}` : number(total);

function create(tag, properties, ...children) {
    const made = Object.assign(document.createElement(tag), properties);
    made.append(...children);
    return made;
}

// "bad", "fair" or an empty text, for a figure. Its key begins with its kind.
function level(key, value) {
    const kind = key.split("_")[0], limits = LIMITS[kind];
    if (!limits || kind === "mos" && !msPerUnit())
        return "";
    const reaches = kind === "mos" ? limit => value < limit
        : limit => (kind === "loss" ? value : scaled(value)) >= limit;
    return reaches(limits[1]) ? "bad" : reaches(limits[0]) ? "fair" : "";
}

// A figure with the word for its level beside it.
function figure(key, value, form) {
    const word = value === undefined ? "" : level(key, value);
    return create("span", {className: word}, value === undefined ? "" : form(value), word && ` ${word}`);
}

const legend = () => ["Fair", "Bad"].map((word, place) => `${word}: loss ≥ ${LIMITS.loss[place]} %, jitter ≥ ` +
    `${LIMITS.jitter[place]} ms, round trip ≥ ${LIMITS.rtt[place]} ms, or MOS < ${LIMITS.mos[place]}. `).join("") +
    "Figures that are not marked are good. The MOS is an estimate.";

// A column: [key, title, format (text if there is none), address that its text links to].
const tables = {};      // for each: its order, and whether it shows all rows

function showTable(id, columns, rows, caption) {
    const place = document.querySelector(`[data-table=${id}]`), table = tables[id] ??= {};
    const focused = document.activeElement;
    const again = change => {
        Object.assign(table, change);
        showTable(id, columns, rows, caption);
    };
    const {key, sign} = table;
    const compare = (a, b) => typeof a === "string" ? a.localeCompare(b) : a - b;
    const sorted = key ? [...rows].sort((a, b) => sign * compare(a[key], b[key])) : rows;
    const head = columns.map(([column, title, form]) => {
        const next = column === key ? -sign : form ? -1 : 1;
        const ariaSort = column === key ? (sign > 0 ? "ascending" : "descending") : null;
        return create("th", {className: form ? "" : "text", scope: "col", ariaSort},
            create("button", {value: column, onclick: () => again({key: column, sign: next})}, title));
    });
    const lines = sorted.slice(0, table.all ? undefined : ROWS_SHOWN).map(row =>
        create("tr", {ariaCurrent: row.id && row.id === chosen("call").split("_")[0] ? "true" : null},
            ...columns.map(([column, , form, address]) => {
                const content = form ? figure(column, row[column], form) : row[column];
                const href = address?.(row);
                return create("td", {className: form ? "" : "text", title: form ? "" : content},
                    href ? create("a", {href}, content || "(none)") : content || "–");
            })));
    const more = create("button", {value: "all", hidden: rows.length <= ROWS_SHOWN,
        onclick: () => again({all: !table.all})}, table.all ? `Show ${ROWS_SHOWN}` : `Show all ${number(rows.length)}`);
    const csv = create("button", {value: "csv", onclick: () => save(`${id}.csv`, csvText(columns, sorted))},
        "Download CSV");
    const hadFocus = place.contains(focused) && (focused.value || focused.href);
    place.replaceChildren(create("p", {className: "note"}, caption),
        create("div", {className: "scroll"}, create("table", {ariaLabel: id},
        create("thead", {}, create("tr", {}, ...head)), create("tbody", {}, ...lines))),
    create("div", {className: "tools"}, more, csv));
    place.children[1].hidden = place.children[2].hidden = !rows.length;
    if (hadFocus)
        [...place.querySelectorAll("button, a")].find(({value, href}) => (value || href) === hadFocus)
            ?.focus({preventScroll: true});
}

// Spreadsheets execute a text that begins like a formula, so it gets an apostrophe.
function csvText(columns, rows) {
    const quoted = value => `"${String(value).replaceAll('"', '""')}"`;
    const cell = (value, form) => typeof value === "string" ? value.replace(/^[=+\-@\t\r]/, "'$&")
        : form === delay ? scaled(value)
            : form?.time ? value && new Date(value * 1000).toISOString() || "" : value;
    return [columns.map(([, title]) => title),
        ...rows.map(row => columns.map(([key, , form]) => cell(row[key], form)))]
        .map(cells => `${cells.map(quoted).join()}\r\n`).join("");
}

function save(name, text) {
    const href = URL.createObjectURL(new Blob([text], {type: "text/csv"}));
    create("a", {href, download: name}).click();
    setTimeout(() => URL.revokeObjectURL(href), 1000);
}
