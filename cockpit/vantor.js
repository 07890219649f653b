// The disk space page: shows vantord's volumes, where the reclaimable space
// is, its services and recent purges, and asks it to reclaim space. It talks
// to vantord only over the system bus, through the web console's D-Bus
// channel.
"use strict";

(function () {
    const BUS_NAME = "com.tessaly.vantor";
    const PATH = "/com/tessaly/vantor";
    const CLIENT = "com.tessaly.vantor.Client";
    const ADMIN = "com.tessaly.vantor.Admin";
    const NOTIFY = "com.tessaly.vantor.Notify";

    // Refreshing while nothing happens: the volumes and services every 30 s,
    // and only while the page is visible. Signals bring the rest.
    const IDLE_REFRESH_MS = 30000;
    // While a purge runs, the free space is read every second for progress.
    const PROGRESS_MS = 1000;
    // A purge may run for up to 120 s before vantord answers.
    const PURGE_TIMEOUT_MS = 130000;
    const CALL_TIMEOUT_MS = 15000;
    const HISTORY_CAPACITY = 64;
    // Longer lists show their first rows and a button for the rest.
    const SHORT_LIST = 12;

    const ENTITLEMENT_HELP = {
        CLIENT_ENTITLEMENT: "needed for anything at all",
        PURGEABLE_ENTITLEMENT: "needed to see how much could be reclaimed",
        ITEMIZED_PURGEABLE_ENTITLEMENT: "needed to see what each source could free",
        PURGE_ENTITLEMENT: "needed to reclaim space",
    };

    const state = {
        client: null,
        volumes: [], // [{name, size, available, lowThreshold, veryLowThreshold, low, veryLow}]
        reclaimable: new Map(), // volume -> bytes, or null when not entitled
        services: [], // [{id, fields}]
        history: [], // entries, newest first
        itemized: null, // {volume, urgency, entries: [[id, bytes]], total}
        chosenVolume: null,
        urgency: 3,
        expanded: new Set(), // history entries shown with their services, by key
        historyLoaded: false,
        showAllSources: false,
        showAllHistory: false,
        missing: new Set(), // entitlements found missing
        purge: null, // the purge the dialog started
        idleTimer: null,
    };

    // ---- values ----------------------------------------------------------

    // Strips the variant wrappers ({t, v}) of a reply, at any depth.
    function unwrap(value) {
        if (Array.isArray(value))
            return value.map(unwrap);
        if (value !== null && typeof value === "object") {
            const keys = Object.keys(value);
            if (keys.length === 2 && typeof value.t === "string" && "v" in value)
                return unwrap(value.v);
            const out = {};
            for (const key of keys)
                out[key] = unwrap(value[key]);
            return out;
        }
        return value;
    }

    function number(value) {
        if (typeof value === "number")
            return value;
        if (typeof value === "boolean")
            return value ? 1 : 0;
        return 0;
    }

    // A date travels as a struct of microseconds since 1970.
    function dateOf(value) {
        const micros = Array.isArray(value) ? number(value[0]) : number(value);
        return new Date(micros / 1000);
    }

    const UNITS = ["B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];

    function formatBytes(bytes) {
        if (bytes < 1024)
            return Math.round(bytes) + " B";
        let amount = bytes;
        let unit = 0;
        while (unit + 1 < UNITS.length && amount >= 1023.95) {
            amount /= 1024;
            unit++;
        }
        return amount.toFixed(1) + " " + UNITS[unit];
    }

    function exactBytes(bytes) {
        return bytes.toLocaleString("en-US") + " bytes";
    }

    function formatDate(date) {
        const now = new Date();
        const sameDay = date.toDateString() === now.toDateString();
        const time = date.toLocaleTimeString([], { hour: "2-digit", minute: "2-digit", second: "2-digit" });
        if (sameDay)
            return time;
        return date.toLocaleDateString([], { month: "short", day: "numeric" }) + " " + time;
    }

    // ---- DOM helpers -----------------------------------------------------

    function $(id) {
        return document.getElementById(id);
    }

    function el(tag, attributes, ...children) {
        const node = document.createElement(tag);
        for (const [key, value] of Object.entries(attributes || {})) {
            if (value === undefined || value === null || value === false)
                continue;
            if (key === "class")
                node.className = value;
            else if (key === "text")
                node.textContent = value;
            else if (key === "style")
                Object.assign(node.style, value);
            else
                node.setAttribute(key, value === true ? "" : String(value));
        }
        for (const child of children) {
            if (child === null || child === undefined)
                continue;
            node.append(child instanceof Node ? child : String(child));
        }
        return node;
    }

    // A dotted identifier that a narrow column breaks after its dots.
    function breakable(id) {
        const parts = [];
        id.split(".").forEach((part, i) => {
            if (i > 0)
                parts.push(".", document.createElement("wbr"));
            parts.push(part);
        });
        return parts;
    }

    // A byte figure: human units, the exact amount on hover and for tests.
    function bytesSpan(bytes, extraClass) {
        return el("span", { class: "bytes" + (extraClass ? " " + extraClass : ""), title: exactBytes(bytes), "data-bytes": bytes },
                  formatBytes(bytes));
    }

    // ---- errors ----------------------------------------------------------

    // Turns a failed call into words for people; never shows the bus's own
    // error text.
    function describeFailure(ex) {
        const name = ex && ex.name ? String(ex.name) : "";
        const problem = ex && ex.problem ? String(ex.problem) : "";
        if (name.endsWith(".AccessDenied") || problem === "access-denied" || problem === "not-authorized")
            return { kind: "access", text: "vantord does not let this account in." };
        if (name.endsWith(".ServiceUnknown") || name.endsWith(".NameHasNoOwner") || problem === "not-found")
            return { kind: "down", text: "vantord is not running. Start it with: systemctl start vantord" };
        if (name.endsWith(".LimitsExceeded"))
            return { kind: "busy", text: "vantord is busy with many requests; try again in a moment." };
        if (name.endsWith(".NoReply") || name.endsWith(".Timeout") || problem === "timeout")
            return { kind: "timeout", text: "vantord did not answer in time." };
        if (name.endsWith(".UnknownMethod") || name.endsWith(".NotSupported") || name.endsWith(".UnknownInterface"))
            return { kind: "old", text: "This version of vantord does not offer what the page needs." };
        if (problem === "disconnected" || problem === "terminated")
            return { kind: "down", text: "The connection to the machine was lost." };
        return { kind: "other", text: "vantord could not be reached." };
    }

    // ---- bus calls -------------------------------------------------------

    function call(iface, method, args, type, timeout) {
        return state.client.call(PATH, iface, method, args || [], { type, timeout: timeout || CALL_TIMEOUT_MS })
                .then(reply => unwrap(reply));
    }

    function variantInfo(fields) {
        const info = {};
        for (const [key, [t, v]] of Object.entries(fields))
            info[key] = { t, v };
        return info;
    }

    function loadVolumes() {
        return call(ADMIN, "GetVolumes", [], "").then(([entries]) => {
            state.volumes = entries.map(([name, fields]) => ({
                name,
                size: number(fields.size),
                available: number(fields.available),
                lowThreshold: number(fields.lowThreshold),
                veryLowThreshold: number(fields.veryLowThreshold),
                low: !!fields.low,
                veryLow: !!fields.veryLow,
            }));
        });
    }

    // What vantord could reclaim on each volume, at its default urgency.
    function loadReclaimable() {
        return Promise.all(state.volumes.map(volume =>
            call(CLIENT, "ClientPurgeableSpace", [variantInfo({ VANTOR_VOLUME: ["s", volume.name] })], "a{sv}")
                    .then(([answer]) => {
                        if (!("VANTOR_TOTAL_AVAILABLE" in answer)) {
                            if (!("VANTOR_ERROR" in answer))
                                noteMissing("PURGEABLE_ENTITLEMENT");
                            state.reclaimable.set(volume.name, null);
                        } else {
                            state.reclaimable.set(volume.name, Math.max(0, number(answer.VANTOR_TOTAL_AVAILABLE)));
                        }
                    })
                    .catch(() => state.reclaimable.set(volume.name, null))));
    }

    function loadServices() {
        return call(ADMIN, "ListServices", [], "").then(([entries]) => {
            state.services = entries.map(([id, fields]) => ({ id, fields }));
        });
    }

    function loadHistory() {
        return call(ADMIN, "GetPurgeHistory", [], "").then(([entries]) => {
            state.history = entries.slice(0, HISTORY_CAPACITY);
        });
    }

    function loadItemized() {
        const volume = state.chosenVolume;
        const urgency = state.urgency;
        if (!volume)
            return Promise.resolve();
        $("sources-chart").setAttribute("aria-busy", "true");
        const info = variantInfo({ VANTOR_VOLUME: ["s", volume], VANTOR_URGENCY: ["x", urgency] });
        return call(CLIENT, "ClientItemizedPurgeableSpace", [info], "a{sv}").then(([answer]) => {
            // The answer for an older choice is dropped.
            if (volume !== state.chosenVolume || urgency !== state.urgency)
                return;
            if ("VANTOR_ERROR" in answer) {
                state.itemized = { volume, urgency, error: "vantord refused to look at this volume." };
            } else if (!("VANTOR_TOTAL_AVAILABLE" in answer)) {
                noteMissing("ITEMIZED_PURGEABLE_ENTITLEMENT");
                state.itemized = { volume, urgency, denied: true };
            } else {
                const entries = Object.entries(answer)
                        .filter(([key]) => !key.startsWith("VANTOR_"))
                        .map(([id, bytes]) => [id, Math.max(0, number(bytes))])
                        .sort((a, b) => b[1] - a[1] || a[0].localeCompare(b[0]));
                state.itemized = { volume, urgency, entries, total: number(answer.VANTOR_TOTAL_AVAILABLE) };
            }
            renderSources();
            renderServices();
        }, ex => {
            state.itemized = { volume, urgency, error: describeFailure(ex).text };
            renderSources();
        });
    }

    function noteMissing(entitlement) {
        if (state.missing.has(entitlement))
            return;
        state.missing.add(entitlement);
        renderMissing();
    }

    // ---- rendering: volumes ----------------------------------------------

    function renderVolumes() {
        const list = $("volume-list");
        const fragment = document.createDocumentFragment();
        for (const volume of state.volumes) {
            const size = Math.max(volume.size, 1);
            const used = Math.max(0, volume.size - volume.available);
            const reclaimable = state.reclaimable.get(volume.name);
            const known = reclaimable !== null && reclaimable !== undefined;
            const shown = known ? Math.min(reclaimable, used) : 0;
            const pct = bytes => (100 * bytes / size).toFixed(3) + "%";

            let badge = null;
            if (volume.veryLow)
                badge = el("span", { class: "badge badge-danger", text: "Very low" });
            else if (volume.low)
                badge = el("span", { class: "badge badge-warning", text: "Low" });

            const bar = el("div", { class: "space-bar", role: "img", "aria-label": `${volume.name}: ${formatBytes(used)} used of ${formatBytes(volume.size)}, ${formatBytes(volume.available)} free` },
                           el("div", { class: "segment used", style: { width: pct(used - shown) }, title: `Used: ${exactBytes(used)}` }),
                           el("div", { class: "segment reclaimable", style: { width: pct(shown) }, title: known ? `Reclaimable: ${exactBytes(reclaimable)}` : "Reclaimable: not known" }),
                           el("div", { class: "segment free", style: { width: pct(volume.available) }, title: `Free: ${exactBytes(volume.available)}` }));
            // The thresholds as marks where the used part would have to reach.
            for (const [threshold, cls, label] of [[volume.lowThreshold, "mark-low", "Low below"], [volume.veryLowThreshold, "mark-very-low", "Very low below"]]) {
                if (threshold <= 0 || threshold >= volume.size)
                    continue;
                bar.append(el("div", { class: "mark " + cls, style: { left: pct(volume.size - threshold) }, title: `${label} ${exactBytes(threshold)} free` }));
            }

            fragment.append(el("div", { class: "volume" + (volume.low ? " is-low" : ""), "data-volume": volume.name },
                               el("div", { class: "volume-head" },
                                  el("span", { class: "volume-name", text: volume.name }),
                                  badge,
                                  el("span", { class: "volume-size" }, bytesSpan(volume.size, "size"), " in all")),
                               bar,
                               el("dl", { class: "figures" },
                                  el("div", {}, el("dt", { text: "Used" }), el("dd", {}, bytesSpan(used, "used"))),
                                  el("div", {}, el("dt", { text: "Reclaimable" }),
                                     el("dd", {}, known ? bytesSpan(reclaimable, "reclaimable") : el("span", { class: "muted reclaimable", text: "not known" }))),
                                  el("div", {}, el("dt", { text: "Free" }), el("dd", {}, bytesSpan(volume.available, "available"))),
                                  el("div", {}, el("dt", { text: "Low below" }), el("dd", {}, bytesSpan(volume.lowThreshold, "low-threshold"))),
                                  el("div", {}, el("dt", { text: "Very low below" }), el("dd", {}, bytesSpan(volume.veryLowThreshold, "very-low-threshold"))))));
        }
        if (state.missing.has("PURGEABLE_ENTITLEMENT"))
            fragment.prepend(missingNotice("PURGEABLE_ENTITLEMENT"));
        list.replaceChildren(fragment);
        fillVolumeSelect($("sources-volume"), state.chosenVolume);
        fillVolumeSelect($("reclaim-volume"), $("reclaim-volume").value || state.chosenVolume);
    }

    function fillVolumeSelect(select, chosen) {
        const names = state.volumes.map(v => v.name);
        const current = Array.from(select.options).map(o => o.value);
        if (current.join("\n") !== names.join("\n"))
            select.replaceChildren(...names.map(name => el("option", { value: name, text: name })));
        if (chosen && names.includes(chosen))
            select.value = chosen;
    }

    // ---- rendering: where the space is -----------------------------------

    function renderSources() {
        const chart = $("sources-chart");
        chart.removeAttribute("aria-busy");
        for (const button of document.querySelectorAll("#urgency-switch button"))
            button.setAttribute("aria-pressed", String(Number(button.dataset.urgency) === state.urgency));
        const itemized = state.itemized;
        if (!itemized) {
            chart.replaceChildren(el("p", { class: "empty", text: "Asking the services…" }));
            return;
        }
        if (itemized.denied) {
            chart.replaceChildren(missingNotice("ITEMIZED_PURGEABLE_ENTITLEMENT"));
            return;
        }
        if (itemized.error) {
            chart.replaceChildren(el("p", { class: "empty", text: itemized.error }));
            return;
        }
        if (itemized.entries.length === 0) {
            chart.replaceChildren(el("p", { class: "empty", text: "No service offers space on this volume." }));
            return;
        }
        const max = Math.max(1, itemized.entries[0][1]);
        const fragment = document.createDocumentFragment();
        const shown = state.showAllSources ? itemized.entries : itemized.entries.slice(0, SHORT_LIST);
        for (const [id, bytes] of shown) {
            fragment.append(el("div", { class: "chart-row", "data-service": id },
                               el("span", { class: "chart-label", title: id, text: id }),
                               el("span", { class: "chart-track" },
                                  el("span", { class: "chart-bar", style: { width: (100 * bytes / max).toFixed(3) + "%" }, title: exactBytes(bytes) })),
                               bytesSpan(bytes, "chart-value")));
        }
        if (shown.length < itemized.entries.length) {
            const rest = itemized.entries.slice(shown.length);
            fragment.append(moreButton(`Show ${rest.length} more, with ${formatBytes(rest.reduce((sum, [, bytes]) => sum + bytes, 0))}`, () => {
                state.showAllSources = true;
                renderSources();
            }));
        }
        fragment.append(el("div", { class: "chart-total" },
                           el("span", { text: `Total at urgency ${itemized.urgency}` }),
                           bytesSpan(itemized.total, "chart-total-value")));
        chart.replaceChildren(fragment);
    }

    function moreButton(text, action) {
        const button = el("button", { type: "button", class: "btn btn-link more", text });
        button.addEventListener("click", action);
        return button;
    }

    // ---- rendering: history ----------------------------------------------

    function historyKey(entry) {
        return `${dateOf(entry.date).getTime()}|${entry.volume}|${number(entry.asked)}|${entry.pid || ""}`;
    }

    function requester(entry) {
        if (entry.requestedBy === "low space")
            return "vantord (low space)";
        const parts = [];
        if (entry.executable)
            parts.push(String(entry.executable).split("/").pop());
        if (entry.uid !== undefined)
            parts.push(entry.uid === 0 ? "root" : "uid " + entry.uid);
        return parts.length ? parts.join(", ") : "a client";
    }

    function outcome(entry) {
        const asked = number(entry.asked);
        const freed = number(entry.freed);
        if (entry.cancelled)
            return el("span", { class: "label label-info", text: "Cancelled" });
        if (freed >= asked)
            return el("span", { class: "label label-success", text: "Done" });
        return el("span", { class: "label label-warning", text: "Shortfall", title: `${exactBytes(asked - freed)} short of the amount asked` });
    }

    function serviceShares(entry) {
        const services = entry.services && typeof entry.services === "object" ? entry.services : {};
        return Object.entries(services).map(([id, share]) => ({
            id,
            asked: number(share.asked),
            reported: number(share.reported),
            nanoseconds: number(share.nanoseconds),
            requests: number(share.requests),
        })).sort((a, b) => b.reported - a.reported || a.id.localeCompare(b.id));
    }

    function renderHistory() {
        const body = $("history-body");
        const fragment = document.createDocumentFragment();
        const shownEntries = state.showAllHistory ? state.history : state.history.slice(0, SHORT_LIST);
        for (const entry of shownEntries) {
            const key = historyKey(entry);
            const open = state.expanded.has(key);
            const shares = serviceShares(entry);
            const toggle = el("button", { type: "button", class: "toggle", "aria-expanded": String(open), "aria-label": "Show each service's share", disabled: shares.length === 0 });
            toggle.addEventListener("click", () => {
                if (state.expanded.has(key))
                    state.expanded.delete(key);
                else
                    state.expanded.add(key);
                renderHistory();
            });
            fragment.append(el("tr", { class: "history-row", "data-key": key, "data-volume": entry.volume },
                               el("td", { class: "col-toggle" }, toggle),
                               el("td", { title: dateOf(entry.date).toString(), text: formatDate(dateOf(entry.date)) }),
                               el("td", { text: requester(entry) }),
                               el("td", { class: "col-volume", text: entry.volume }),
                               el("td", { class: "num" }, bytesSpan(number(entry.asked), "asked")),
                               el("td", { class: "num" }, bytesSpan(number(entry.freed), "freed")),
                               el("td", { class: "col-result" }, outcome(entry))));
            if (open) {
                const rows = shares.map(share => el("tr", { "data-service": share.id },
                                                    el("td", { text: share.id }),
                                                    el("td", { class: "num" }, bytesSpan(share.asked)),
                                                    el("td", { class: "num" }, bytesSpan(share.reported)),
                                                    el("td", { class: "num", text: (share.nanoseconds / 1e6).toFixed(0) + " ms" }),
                                                    el("td", { class: "num", text: String(share.requests) })));
                fragment.append(el("tr", { class: "history-detail" },
                                   el("td", { colspan: 7 },
                                      el("table", { class: "table compact" },
                                         el("thead", {}, el("tr", {},
                                                            el("th", { scope: "col", text: "Service" }),
                                                            el("th", { scope: "col", class: "num", text: "Asked" }),
                                                            el("th", { scope: "col", class: "num", text: "Freed (reported)" }),
                                                            el("th", { scope: "col", class: "num", text: "Took" }),
                                                            el("th", { scope: "col", class: "num", text: "Requests" }))),
                                         el("tbody", {}, ...rows)))));
            }
        }
        if (shownEntries.length < state.history.length) {
            fragment.append(el("tr", { class: "more-row" },
                               el("td", { colspan: 7 }, moreButton(`Show all ${state.history.length}`, () => {
                                   state.showAllHistory = true;
                                   renderHistory();
                               }))));
        }
        body.replaceChildren(fragment);
        $("history-empty").hidden = state.history.length !== 0;
        $("history-empty").textContent = state.historyLoaded ? "No purge since vantord started." : "Reading the recent purges…";
        $("history-table").hidden = state.history.length === 0;
        $("history-count").textContent = state.history.length ? `${state.history.length} recent` : "";
    }

    // ---- rendering: services ---------------------------------------------

    // The newest history entry each service took part in.
    function lastShares() {
        const last = new Map();
        for (const entry of state.history) {
            for (const share of serviceShares(entry)) {
                if (!last.has(share.id))
                    last.set(share.id, { entry, share });
            }
        }
        return last;
    }

    function renderServices() {
        const last = lastShares();
        const itemized = state.itemized && state.itemized.entries ? new Map(state.itemized.entries) : null;
        const fragment = document.createDocumentFragment();
        const services = state.services.slice().sort((a, b) => a.id.localeCompare(b.id));
        for (const { id, fields } of services) {
            const kind = fields.origin === "checkin"
                ? el("span", { title: fields.busName ? `Checked in from ${fields.busName}` : "Checked in", text: "Checked in" })
                : el("span", { title: "Known from its descriptor file", text: "Descriptor" });
            const does = [];
            if (fields.PURGE)
                does.push(el("span", { class: "label", text: "Purge" }));
            if (fields.PERIODIC)
                does.push(el("span", { class: "label", text: "Periodic" }));
            if (fields.DO_NOT_QUERY)
                does.push(el("span", { class: "label label-muted", title: "vantord never asks it how much it could free", text: "Not queried" }));
            const inFlight = Array.isArray(fields.inFlight) ? fields.inFlight : [];
            if (inFlight.length)
                does.push(el("span", { class: "label label-info", title: "Requests under way: " + inFlight.join(", "), text: "Busy" }));
            if (fields.optedOutAt !== undefined)
                does.push(el("span", { class: "label label-muted", title: "Opted out since " + dateOf(fields.optedOutAt).toString(), text: "Opted out" }));

            let could = el("span", { class: "muted", text: "—" });
            if (itemized && itemized.has(id))
                could = bytesSpan(itemized.get(id), "could-free");
            const previous = last.get(id);
            const lastCell = previous
                ? el("span", { title: dateOf(previous.entry.date).toString() },
                     bytesSpan(previous.share.reported), " of ", bytesSpan(previous.share.asked), " asked, ",
                     el("span", { class: "muted", text: formatDate(dateOf(previous.entry.date)) }))
                : el("span", { class: "muted", text: "—" });
            fragment.append(el("tr", { class: "service-row", "data-service": id },
                               el("td", { class: "service-id" }, ...breakable(id)),
                               el("td", { class: "col-kind" }, kind),
                               el("td", { class: "labels" }, ...does),
                               el("td", { class: "num", title: state.itemized ? `On ${state.itemized.volume} at urgency ${state.itemized.urgency}` : "" }, could),
                               el("td", { class: "col-last" }, lastCell)));
        }
        $("services-body").replaceChildren(fragment);
        $("services-empty").hidden = state.services.length !== 0;
        $("services-table").hidden = state.services.length === 0;
        $("services-count").textContent = state.services.length ? String(state.services.length) : "";
    }

    // ---- access ------------------------------------------------------------

    function missingNotice(entitlement) {
        return el("div", { class: "inline-notice", "data-entitlement": entitlement },
                  el("strong", { text: "Not allowed: " }),
                  `this account lacks ${entitlement} (${ENTITLEMENT_HELP[entitlement] || "needed here"}). `,
                  "Grant it in /etc/vantor/entitlements.d/ (an example for the sudo and adm groups is in /usr/share/doc/cockpit-vantor/examples/), or turn on administrative access.");
    }

    function renderMissing() {
        if (state.missing.has("PURGEABLE_ENTITLEMENT"))
            renderVolumes();
    }

    function showAccessProblem(failure) {
        $("content").hidden = true;
        $("reclaim-open").disabled = true;
        $("reclaim-open").hidden = true;
        const box = $("access");
        box.hidden = false;
        if (failure.kind === "access") {
            $("access-title").textContent = "Not allowed to use vantord";
            $("access-text").replaceChildren("This account lacks the entitlement ", el("code", { text: "CLIENT_ENTITLEMENT" }),
                                             ", which vantord needs to answer anything.");
            $("access-grant").hidden = false;
            box.dataset.entitlement = "CLIENT_ENTITLEMENT";
        } else {
            $("access-title").textContent = "vantord cannot be reached";
            $("access-text").textContent = failure.text;
            $("access-grant").hidden = true;
            delete box.dataset.entitlement;
        }
        $("page").dataset.state = "problem";
    }

    // ---- banners -----------------------------------------------------------

    function banner(kind, text, key) {
        const banners = $("banners");
        if (key) {
            const old = banners.querySelector(`[data-key="${CSS.escape(key)}"]`);
            if (old)
                old.remove();
        }
        const close = el("button", { type: "button", class: "btn btn-plain close", "aria-label": "Dismiss", text: "×" });
        const node = el("div", { class: "alert alert-" + kind, role: kind === "danger" || kind === "warning" ? "alert" : "status", "data-key": key },
                        el("span", { class: "alert-text", text }), close);
        close.addEventListener("click", () => node.remove());
        banners.prepend(node);
        return node;
    }

    function onLowSpace(volume, available, threshold, veryLow) {
        const node = banner(veryLow ? "danger" : "warning",
                            `${volume} is ${veryLow ? "very " : ""}low on space: ${formatBytes(available)} free, below ${formatBytes(threshold)}. vantord is reclaiming space.`,
                            "low:" + volume);
        node.classList.add("low-space-banner");
        node.dataset.volume = volume;
        refreshVolumes();
    }

    function onPurgeFinished(entry) {
        const key = historyKey(entry);
        if (!state.history.some(e => historyKey(e) === key)) {
            state.history.unshift(entry);
            state.history.length = Math.min(state.history.length, HISTORY_CAPACITY);
        }
        renderHistory();
        renderServices();
        if (state.purge && state.purge.running)
            matchPurge(entry);
        refreshVolumes();
        // A purge may have met services checked in since the last look.
        loadServices().then(renderServices, () => {});
    }

    // ---- refreshing --------------------------------------------------------

    let refreshing = null;
    function refreshVolumes() {
        if (refreshing)
            return refreshing;
        refreshing = loadVolumes()
                .then(() => { renderVolumes(); return loadReclaimable() })
                .then(() => renderVolumes())
                .catch(ex => handleFailure(ex))
                .finally(() => { refreshing = null });
        return refreshing;
    }

    function idleRefresh() {
        if (document.hidden || (state.purge && state.purge.running))
            return;
        refreshVolumes();
        loadServices().then(renderServices, handleFailure);
    }

    function handleFailure(ex) {
        const failure = describeFailure(ex);
        if (failure.kind === "access" || failure.kind === "down" || failure.kind === "old")
            showAccessProblem(failure);
        else
            banner("warning", failure.text, "failure");
    }

    // ---- reclaim dialog ----------------------------------------------------

    function dialogState(phase) {
        $("reclaim-fields").hidden = phase !== "form";
        $("reclaim-progress").hidden = phase !== "running";
        $("reclaim-result").hidden = phase !== "done";
        $("reclaim-start").hidden = phase !== "form";
        $("reclaim-cancel-purge").hidden = phase !== "running";
        $("reclaim-close").hidden = phase === "running";
        $("reclaim-close").textContent = phase === "form" ? "Cancel" : "Close";
        $("reclaim-dialog").dataset.phase = phase;
    }

    function openDialog() {
        if (state.purge && state.purge.running) {
            $("reclaim-dialog").showModal();
            return;
        }
        state.purge = null;
        dialogState("form");
        $("reclaim-error").hidden = true;
        fillVolumeSelect($("reclaim-volume"), $("reclaim-volume").value || state.chosenVolume);
        $("reclaim-dialog").showModal();
        $("reclaim-amount").focus();
    }

    function formError(text) {
        $("reclaim-error").textContent = text;
        $("reclaim-error").hidden = false;
    }

    function startPurge() {
        const amount = Number($("reclaim-amount").value);
        const unit = Number($("reclaim-unit").value);
        const volume = $("reclaim-volume").value;
        const urgency = Number($("reclaim-urgency").value);
        const mode = $("reclaim-mode").value;
        if (!Number.isFinite(amount) || amount <= 0)
            return formError("Enter an amount above zero.");
        const bytes = Math.round(amount * unit);
        if (!Number.isSafeInteger(bytes))
            return formError("That amount is too large.");
        if (!volume)
            return formError("Choose a volume.");
        $("reclaim-error").hidden = true;

        const before = state.volumes.find(v => v.name === volume);
        const purge = {
            running: true,
            volume,
            bytes,
            started: Date.now(),
            startAvailable: before ? before.available : null,
            entry: null,
            reply: null,
            timer: null,
        };
        state.purge = purge;
        dialogState("running");
        $("reclaim-progress-text").textContent = `Reclaiming ${formatBytes(bytes)} on ${volume}…`;
        $("reclaim-progress-detail").textContent = "";
        setProgress(0);
        purge.timer = window.setInterval(() => pollProgress(purge), PROGRESS_MS);

        const fields = { VANTOR_VOLUME: ["s", volume], VANTOR_AMOUNT: ["t", bytes] };
        fields[mode === "exact" ? "VANTOR_URGENCY" : "VANTOR_URGENCY_LIMIT"] = ["x", urgency];
        call(CLIENT, "ClientPurge", [variantInfo(fields)], "a{sv}", PURGE_TIMEOUT_MS)
                .then(([answer]) => {
                    if (!("VANTOR_AMOUNT" in answer) && !("VANTOR_ERROR" in answer)) {
                        noteMissing("PURGE_ENTITLEMENT");
                        return finishPurge(purge, { denied: true });
                    }
                    if ("VANTOR_ERROR" in answer)
                        return finishPurge(purge, { refused: String(answer.VANTOR_ERROR) });
                    purge.reply = answer;
                    if (!purge.entry) {
                        return loadHistory().then(() => {
                            const found = state.history.find(e => entryMatches(purge, e));
                            if (found)
                                purge.entry = found;
                            renderHistory();
                            renderServices();
                        }, () => {}).then(() => finishPurge(purge, {}));
                    }
                    return finishPurge(purge, {});
                })
                .catch(ex => finishPurge(purge, { failure: describeFailure(ex).text }));
    }

    function entryMatches(purge, entry) {
        return entry.volume === purge.volume && number(entry.asked) === purge.bytes &&
            dateOf(entry.date).getTime() >= purge.started - 5000;
    }

    function matchPurge(entry) {
        if (entryMatches(state.purge, entry))
            state.purge.entry = entry;
    }

    function setProgress(fraction) {
        const clamped = Math.max(0, Math.min(1, fraction));
        $("reclaim-progress-fill").style.width = (100 * clamped).toFixed(1) + "%";
        $("reclaim-progress-fill").classList.toggle("indeterminate", clamped === 0);
        $("reclaim-progress-bar").setAttribute("aria-valuenow", String(Math.round(100 * clamped)));
    }

    function pollProgress(purge) {
        if (!purge.running)
            return;
        const seconds = Math.round((Date.now() - purge.started) / 1000);
        call(ADMIN, "GetVolumes", [], "").then(([entries]) => {
            if (!purge.running)
                return;
            const found = entries.find(([name]) => name === purge.volume);
            if (!found || purge.startAvailable === null)
                return;
            const freed = Math.max(0, number(found[1].available) - purge.startAvailable);
            setProgress(freed / purge.bytes);
            $("reclaim-progress-detail").textContent = `${formatBytes(freed)} freed so far, ${seconds} s`;
        }, () => {});
    }

    function cancelPurge() {
        $("reclaim-cancel-purge").disabled = true;
        $("reclaim-progress-text").textContent = "Stopping: the services are told to stop…";
        call(CLIENT, "ClientCancelPurge", [], "").catch(ex => {
            $("reclaim-progress-detail").textContent = describeFailure(ex).text;
        });
    }

    function finishPurge(purge, how) {
        if (!purge.running)
            return;
        purge.running = false;
        window.clearInterval(purge.timer);
        $("reclaim-cancel-purge").disabled = false;
        dialogState("done");
        const outcomeBox = $("reclaim-outcome");
        const body = $("reclaim-services-body");
        body.replaceChildren();
        $("reclaim-services").hidden = true;
        if (how.denied) {
            outcomeBox.className = "alert alert-danger";
            outcomeBox.replaceChildren(missingNotice("PURGE_ENTITLEMENT"));
            return;
        }
        if (how.refused || how.failure) {
            outcomeBox.className = "alert alert-danger";
            outcomeBox.textContent = how.refused ? "vantord refused the request: " + how.refused.replace(/^Parameter error, ?/, "") : how.failure;
            return;
        }
        const reply = purge.reply || {};
        const freed = Math.max(0, number(reply.VANTOR_AMOUNT));
        const reported = number(reply.VANTOR_AMOUNT_REPORTED);
        const cancelled = purge.entry ? !!purge.entry.cancelled : false;
        const parts = [el("strong", {}, bytesSpan(freed, "result-freed")), " freed of ", bytesSpan(purge.bytes, "result-asked"), ` asked on ${purge.volume}.`];
        if (reported !== freed)
            parts.push(" The services reported freeing ", bytesSpan(reported), ".");
        if (freed >= purge.bytes) {
            outcomeBox.className = "alert alert-success";
        } else {
            outcomeBox.className = "alert alert-info shortfall";
            parts.push(` A shortfall of ${formatBytes(purge.bytes - freed)}: `,
                       cancelled ? "cancelled before the amount was reached." : "less space came free than was asked at these urgencies.");
        }
        if (reply.VANTOR_ASYNC_COMPLETE !== true)
            parts.push(" Some services were still working when vantord answered.");
        outcomeBox.replaceChildren(el("span", {}, ...parts));
        if (purge.entry) {
            for (const share of serviceShares(purge.entry)) {
                body.append(el("tr", { "data-service": share.id },
                               el("td", { text: share.id }),
                               el("td", { class: "num" }, bytesSpan(share.asked)),
                               el("td", { class: "num" }, bytesSpan(share.reported))));
            }
            $("reclaim-services").hidden = body.children.length === 0;
        }
        refreshVolumes();
        loadItemized();
    }

    // ---- theme -------------------------------------------------------------

    // Follows the web console's style choice ("auto", "light" or "dark"),
    // which it keeps in local storage and announces with an event.
    function applyTheme() {
        let style = "auto";
        try {
            style = window.localStorage.getItem("shell:style") || "auto";
        } catch (e) {
            // Storage may be refused; the system's preference stands.
        }
        const dark = style === "dark" || (style === "auto" && window.matchMedia("(prefers-color-scheme: dark)").matches);
        document.documentElement.classList.toggle("pf-theme-dark", dark);
        document.documentElement.classList.toggle("pf-v5-theme-dark", dark);
    }

    // ---- start ---------------------------------------------------------------

    // Administrative access turned on or off changes who vantord sees: the
    // page starts again as the new caller.
    function followSuperuser() {
        let known = null;
        try {
            const superuser = cockpit.dbus(null, { bus: "internal" }).proxy("cockpit.Superuser", "/superuser");
            superuser.addEventListener("changed", () => {
                const current = superuser.Current;
                if (current === undefined || current === "init")
                    return;
                if (known !== null && current !== known)
                    window.location.reload();
                known = current;
            });
        } catch (e) {
            // A console without the superuser interface: nothing to follow.
        }
    }

    function connect() {
        state.client = cockpit.dbus(BUS_NAME, { bus: "system", superuser: "try" });
        state.client.subscribe({ interface: NOTIFY, path: PATH, member: "LowSpace" },
                               (path, iface, signal, args) => onLowSpace(String(args[0]), number(args[1]), number(args[2]), !!args[3]));
        state.client.subscribe({ interface: ADMIN, path: PATH, member: "PurgeFinished" },
                               (path, iface, signal, args) => onPurgeFinished(unwrap(args[0])));
        // vantord started, or started again: read everything afresh.
        state.client.addEventListener("owner", (event, owner) => {
            if (owner && $("page").dataset.state === "problem")
                load();
        });
        state.client.addEventListener("close", (event, options) => {
            showAccessProblem(describeFailure({ problem: options && options.problem ? options.problem : "disconnected" }));
        });
    }

    // The volumes and services make the page usable; the history, which
    // can be the largest answer, fills in as soon as it comes.
    function load() {
        const started = performance.now();
        const history = loadHistory();
        history.catch(() => {});
        return Promise.all([loadVolumes(), loadServices()])
                .then(() => {
                    state.chosenVolume = state.chosenVolume || (state.volumes[0] && state.volumes[0].name) || null;
                    $("access").hidden = true;
                    $("content").hidden = false;
                    $("reclaim-open").disabled = false;
                    $("reclaim-open").hidden = false;
                    renderVolumes();
                    renderServices();
                    renderSources();
                    const page = $("page");
                    page.dataset.state = "ready";
                    // Since the navigation began, and since the first call.
                    page.dataset.readyAt = String(Math.round(performance.now()));
                    page.dataset.readyMs = String(Math.round(performance.now() - started));
                    loadReclaimable().then(renderVolumes);
                    loadItemized();
                    return history.then(() => {
                        state.historyLoaded = true;
                        renderHistory();
                        renderServices();
                        page.dataset.historyAt = String(Math.round(performance.now()));
                    });
                })
                .catch(handleFailure);
    }

    function init() {
        applyTheme();
        window.addEventListener("storage", event => {
            if (event.key === "shell:style")
                applyTheme();
        });
        window.matchMedia("(prefers-color-scheme: dark)").addEventListener("change", applyTheme);
        document.addEventListener("visibilitychange", () => {
            if (!document.hidden)
                idleRefresh();
        });

        $("reclaim-open").addEventListener("click", openDialog);
        $("reclaim-start").addEventListener("click", startPurge);
        $("reclaim-cancel-purge").addEventListener("click", cancelPurge);
        $("reclaim-close").addEventListener("click", () => $("reclaim-dialog").close());
        $("reclaim-form").addEventListener("submit", event => {
            event.preventDefault();
            if (!$("reclaim-start").hidden)
                startPurge();
        });
        $("reclaim-dialog").addEventListener("cancel", event => {
            // Escape does not hide a running purge's only way to stop it.
            if (state.purge && state.purge.running)
                event.preventDefault();
        });
        $("sources-volume").addEventListener("change", event => {
            state.chosenVolume = event.target.value;
            state.itemized = null;
            renderSources();
            loadItemized();
        });
        for (const button of document.querySelectorAll("#urgency-switch button")) {
            button.addEventListener("click", () => {
                state.urgency = Number(button.dataset.urgency);
                state.itemized = null;
                renderSources();
                loadItemized();
            });
        }

        connect();
        followSuperuser();
        load();
        state.idleTimer = window.setInterval(idleRefresh, IDLE_REFRESH_MS);
    }

    document.addEventListener("DOMContentLoaded", init);
}());
