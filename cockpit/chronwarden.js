/* Chronwarden in Cockpit: the Control Panel applet's property sheet, drawn in the browser.
 *
 * The sheet runs in its own process on the managed machine (`chronwarden applet --stdio`, see
 * docs/sheet-protocol.md); this page only draws what that process says and sends back what the
 * person does. Every text, enabling rule and verdict comes from the process: nothing here knows
 * what a page means. Controls are placed where their dialog templates put them, in dialog units
 * scaled as Windows scales them: by the average character width and the height of the font the
 * dialog is drawn in (here Cockpit's own type).
 */
"use strict";

(function () {
    const COMMAND = ["chronwarden", "applet", "--stdio"];
    const SAMPLE = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    // Scroll bar requests (the system's SB_ codes).
    const SB_LINELEFT = 0, SB_LINERIGHT = 1, SB_THUMBPOSITION = 4, SB_THUMBTRACK = 5, SB_ENDSCROLL = 8;

    let proc = null;          // the sheet process
    let pending = "";         // its output not yet a whole line
    let sheet = null;         // the "sheet" message
    let units = null;         // {x, y}: pixels per dialog unit across and down, here
    let processUnits = null;  // the same in the sheet process's pixels (mouse positions are in them)
    let fontPx = 13;
    let windows = new Map();  // window number -> drawn window
    let questions = [];       // questions waiting, oldest first; the first is shown
    let shownQuestion = null;

    const $ = id => document.getElementById(id);

    function el(tag, className, text) {
        const e = document.createElement(tag);
        if (className)
            e.className = className;
        if (text !== undefined)
            e.textContent = text;
        return e;
    }

    function send(message) {
        if (proc)
            proc.input(JSON.stringify(message) + "\n", true);
    }

    /* ---------------------------------------------------------------- texts */

    // A control text with "&" marking the access key ("&&" is a plain "&"): filled into node, the
    // key underlined. Returns the access key, lower-cased, or "".
    function fillMnemonic(node, text) {
        node.textContent = "";
        let key = "";
        let plain = "";
        const flush = () => {
            if (plain)
                node.appendChild(document.createTextNode(plain));
            plain = "";
        };
        for (let i = 0; i < text.length; i++) {
            const c = text[i];
            if (c === "&" && i + 1 < text.length) {
                const next = text[++i];
                if (next === "&") {
                    plain += "&";
                } else {
                    flush();
                    node.appendChild(el("u", "", next));
                    if (!key)
                        key = next.toLowerCase();
                }
            } else {
                plain += c;
            }
        }
        flush();
        return key;
    }

    function plainText(text) {
        return text.replace(/\r\n/g, "\n").replace(/&(.)/g, "$1");
    }

    /* ---------------------------------------------------------------- dialog units */

    // The dialog base units of the page's font, as the system computes them for a dialog font:
    // the average width of the 52 letters, rounded, and the font's height.
    function measureUnits() {
        const probe = el("span", "cw-dialog");
        document.body.appendChild(probe);
        const style = getComputedStyle(probe);
        fontPx = parseFloat(style.fontSize) || 13;
        const context = document.createElement("canvas").getContext("2d");
        context.font = style.fontSize + " " + style.fontFamily;
        const metrics = context.measureText(SAMPLE);
        const height = Math.ceil((metrics.fontBoundingBoxAscent || fontPx * 0.9) +
                                 (metrics.fontBoundingBoxDescent || fontPx * 0.3));
        document.body.removeChild(probe);
        const baseX = Math.floor((metrics.width / 26 + 1) / 2);
        return { x: baseX / 4, y: height / 8 };
    }

    function place(node, x, y, w, h) {
        node.style.left = (x * units.x) + "px";
        node.style.top = (y * units.y) + "px";
        node.style.width = (w * units.x) + "px";
        node.style.height = (h * units.y) + "px";
    }

    /* ---------------------------------------------------------------- controls */

    function controlKey(desc) {
        return desc.id !== undefined ? String(desc.id) : "#" + desc.index;
    }

    function iconUrl(number) {
        const name = sheet && sheet.icons[String(number)];
        return name ? "icons/" + name + ".ico" : "";
    }

    // Draws one control of a template into the window's surface; returns its record.
    function makeControl(win, desc, radioGroup) {
        const key = controlKey(desc);
        const flags = new Set(desc.flags);
        const c = { win, desc, key, state: {}, node: null, input: null, label: null };
        let node;
        const domId = "w" + win.number + "-" + (desc.id !== undefined ? desc.id : "i" + desc.index);
        const address = desc.id !== undefined && desc.id !== -1;
        switch (desc.kind) {
        case "text":
        case "center_text":
            node = el("div", "cw-text" + (desc.kind === "center_text" ? " cw-center" : ""));
            break;
        case "link":
            node = el("button", "cw-link");
            node.type = "button";
            c.input = node;
            node.addEventListener("click", () => send({ do: "click", window: win.number, id: desc.id }));
            break;
        case "icon":
            node = el("img", "cw-icon");
            node.alt = "";
            break;
        case "frame":
            node = el("div", "cw-frame" + (flags.has("sunken") ? " cw-sunken" : ""));
            break;
        case "group":
            node = el("fieldset", "cw-group");
            c.label = el("legend", "cw-legend");
            node.appendChild(c.label);
            break;
        case "button":
        case "default_button":
            node = el("button", "cw-button" + (desc.kind === "default_button" ? " cw-primary" : " cw-secondary"));
            node.type = "button";
            c.input = node;
            c.label = node;
            if (address)
                node.addEventListener("click", () => send({ do: "click", window: win.number, id: desc.id }));
            break;
        case "check":
        case "radio": {
            node = el("label", "cw-choice");
            const input = el("input");
            input.type = desc.kind === "check" ? "checkbox" : "radio";
            if (desc.kind === "radio")
                input.name = radioGroup;
            c.label = el("span", "cw-choice-text");
            node.append(input, c.label);
            c.input = input;
            // The sheet process decides what a click does; its answer comes as state.
            input.addEventListener("click", event => {
                event.preventDefault();
                if (address)
                    send({ do: "click", window: win.number, id: desc.id });
            });
            break;
        }
        case "edit": {
            node = el(flags.has("multiline") ? "textarea" : "input", "cw-edit");
            if (!flags.has("multiline"))
                node.type = "text";
            if (flags.has("number"))
                node.inputMode = "numeric";
            node.readOnly = flags.has("readonly");
            node.spellcheck = false;
            c.input = node;
            c.typed = [];
            if (address) {
                node.addEventListener("input", () => {
                    c.typed.push(node.value);
                    send({ do: "type", window: win.number, id: desc.id, text: node.value });
                });
                node.addEventListener("focus", () => send({ do: "focus", window: win.number, id: desc.id, in: true }));
                node.addEventListener("blur", () => {
                    if (c.state.enabled !== false && c.state.visible !== false && proc)
                        send({ do: "focus", window: win.number, id: desc.id, in: false });
                });
            }
            break;
        }
        case "combo":
            node = el("select", "cw-select");
            c.input = node;
            node.addEventListener("change", () => {
                const index = node.selectedIndex;
                node.selectedIndex = c.state.selection !== undefined ? c.state.selection : -1;
                send({ do: "choose", window: win.number, id: desc.id, index });
            });
            break;
        case "list":
            node = el("div", "cw-list");
            node.tabIndex = 0;
            node.setAttribute("role", "listbox");
            c.input = node;
            node.addEventListener("click", event => {
                const row = event.target.closest(".cw-row");
                if (row)
                    send({ do: "choose", window: win.number, id: desc.id, index: Number(row.dataset.index) });
            });
            node.addEventListener("keydown", event => {
                const count = (c.state.items || []).length;
                const step = { ArrowDown: 1, ArrowUp: -1 }[event.key];
                if (!step || !count)
                    return;
                event.preventDefault();
                const at = Math.min(count - 1, Math.max(0, (c.state.selection ?? -1) + step));
                send({ do: "choose", window: win.number, id: desc.id, index: at });
            });
            break;
        case "hscroll": {
            node = el("div", "cw-scroll");
            const left = el("button", "cw-scroll-step", "\u2039");
            const right = el("button", "cw-scroll-step", "\u203a");
            const range = el("input", "cw-scroll-range");
            left.type = right.type = "button";
            left.setAttribute("aria-label", "Back");
            right.setAttribute("aria-label", "Forward");
            range.type = "range";
            node.append(left, range, right);
            c.input = range;
            c.steps = [left, right];
            const scroll = (code, pos) => send({ do: "scroll", window: win.number, id: desc.id, code, pos });
            left.addEventListener("click", () => { scroll(SB_LINELEFT, 0); scroll(SB_ENDSCROLL, 0) });
            right.addEventListener("click", () => { scroll(SB_LINERIGHT, 0); scroll(SB_ENDSCROLL, 0) });
            range.addEventListener("input", () => scroll(SB_THUMBTRACK, Number(range.value)));
            range.addEventListener("change", () => { scroll(SB_THUMBPOSITION, Number(range.value)); scroll(SB_ENDSCROLL, 0) });
            break;
        }
        case "progress":
            node = el("progress", "cw-progress");
            break;
        default:
            node = el("div", "cw-text");
        }
        node.id = domId;
        node.dataset.kind = desc.kind;
        if (c.input && c.input !== node)
            c.input.id = domId + "-input";
        c.node = node;
        place(node, desc.x, desc.y, desc.w, desc.kind === "combo" ? Math.min(desc.h, 12) : desc.h);
        win.surface.appendChild(node);
        update(c, {
            text: desc.text,
            visible: !flags.has("hidden"),
            enabled: !flags.has("disabled"),
            icon: desc.kind === "icon" ? Number(desc.text) : 0
        });
        return c;
    }

    function listRow(c, text, index) {
        const row = el("div", "cw-row");
        row.dataset.index = index;
        row.setAttribute("role", "option");
        const stops = (c.state.tabstops || []).map(s => s * units.x);
        text.split("\t").forEach((cell, i) => {
            const span = el("span", "cw-cell", cell);
            if (i > 0 && stops.length) {
                const at = stops[Math.min(i - 1, stops.length - 1)] + (i > stops.length ? (i - stops.length) * 32 : 0);
                span.style.left = at + "px";
                span.classList.add("cw-cell-at");
            }
            row.appendChild(span);
        });
        return row;
    }

    // Brings a control to the state fields given (merged into what it had).
    function update(c, fields) {
        Object.assign(c.state, fields);
        const s = c.state;
        const node = c.node;
        const kind = c.desc.kind;
        node.hidden = s.visible === false;
        const disabled = s.enabled === false;
        node.classList.toggle("cw-disabled", disabled);
        if (c.input)
            c.input.disabled = disabled;
        if (c.steps)
            c.steps.forEach(b => { b.disabled = disabled });
        if (fields.font) {
            const base = c.win.points || 8;
            node.style.fontWeight = s.font.weight >= 600 ? "bold" : "normal";
            node.style.textDecoration = s.font.underline ? "underline" : "";
            node.style.fontSize = (fontPx * (s.font.points || base) / base) + "px";
            node.classList.toggle("cw-fixed", /courier/i.test(s.font.face || ""));
        }
        if (fields.colours !== undefined)
            node.style.color = s.colours ? s.colours.text : "";
        if ("text" in fields) {
            const text = s.text || "";
            switch (kind) {
            case "text":
            case "center_text":
                node.textContent = plainText(text);
                break;
            case "link":
                node.textContent = plainText(text);
                break;
            case "group":
                fillMnemonic(c.label, text);
                c.label.hidden = !text;
                break;
            case "button":
            case "default_button":
            case "check":
            case "radio": {
                const key = fillMnemonic(c.label, text.replace(/\r\n/g, "\n"));
                if (key)
                    c.input.accessKey = key;
                else
                    c.input.removeAttribute("accesskey");
                break;
            }
            case "edit": {
                // The echo of what was typed comes after the person may have typed on: an echo of a
                // text still on its way is no news; any other text is the process's own.
                const at = c.typed.indexOf(text);
                c.typed = at >= 0 ? c.typed.slice(at + 1) : [];
                if (!c.typed.length && node.value !== text)
                    node.value = text;
                break;
            }
            }
        }
        if ("checked" in fields && c.input && (kind === "check" || kind === "radio"))
            c.input.checked = !!s.checked;
        if (kind === "icon" && "icon" in fields) {
            const url = s.icon ? iconUrl(s.icon) : "";
            if (url)
                node.src = url;
            node.classList.toggle("cw-empty", !url);
        }
        if (kind === "combo" && ("items" in fields || "selection" in fields)) {
            if ("items" in fields) {
                node.textContent = "";
                (s.items || []).forEach(item => node.appendChild(el("option", "", item)));
            }
            node.selectedIndex = s.selection !== undefined ? s.selection : -1;
        }
        if (kind === "list" && ("items" in fields || "selection" in fields || "tabstops" in fields)) {
            node.textContent = "";
            (s.items || []).forEach((item, i) => {
                const row = listRow(c, item, i);
                if (i === s.selection) {
                    row.classList.add("cw-selected");
                    row.setAttribute("aria-selected", "true");
                }
                node.appendChild(row);
            });
            const chosen = node.querySelector(".cw-selected");
            if (chosen)
                chosen.scrollIntoView({ block: "nearest" });
        }
        if (kind === "hscroll" && s.scroll) {
            c.input.min = s.scroll.min;
            c.input.max = s.scroll.max;
            c.input.value = s.scroll.pos;
        }
        if (kind === "progress" && s.progress) {
            node.max = Math.max(1, s.progress.max - s.progress.min);
            node.value = s.progress.pos - s.progress.min;
        }
    }

    // Puts every control back to the state last sent (after a refused input).
    function redrawAll() {
        for (const win of windows.values())
            for (const c of win.controls.values())
                update(c, Object.assign({}, c.state));
    }

    /* ---------------------------------------------------------------- windows */

    function makeWindow(number, template, page, parent) {
        const win = {
            number, template, page, points: template.font.points, controls: new Map(), surface: el("div", "cw-dialog cw-surface")
        };
        win.surface.id = "window-" + number;
        win.surface.style.width = (template.width * units.x) + "px";
        win.surface.style.height = (template.height * units.y) + "px";
        let group = "";
        template.controls.forEach((desc, i) => {
            if (desc.kind === "radio" && (!group || desc.flags.includes("group")))
                group = "w" + number + "-g" + i;
            const c = makeControl(win, desc, group);
            win.controls.set(c.key, c);
        });
        parent.appendChild(win.surface);
        windows.set(number, win);
        return win;
    }

    function drawSheet(message) {
        sheet = message;
        processUnits = { x: message.base_units.x / 4, y: message.base_units.y / 8 };
        $("sheet-title").textContent = message.title;
        const tabs = $("tabs");
        const pages = $("pages");
        tabs.textContent = "";
        pages.textContent = "";
        windows = new Map();
        message.pages.forEach((page, i) => {
            const tab = el("button", "cw-tab");
            tab.type = "button";
            tab.id = "tab-" + page.window;
            tab.setAttribute("role", "tab");
            tab.textContent = page.title;
            tab.addEventListener("click", () => send({ do: "tab", page: page.window }));
            tab.addEventListener("keydown", event => {
                const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
                if (!step)
                    return;
                const next = (i + step + message.pages.length) % message.pages.length;
                send({ do: "tab", page: message.pages[next].window });
                $("tab-" + message.pages[next].window).focus();
            });
            tabs.appendChild(tab);
            const panel = el("div", "cw-page");
            panel.id = "page-" + page.window;
            panel.setAttribute("role", "tabpanel");
            panel.hidden = true;
            pages.appendChild(panel);
            makeWindow(page.window, page, true, panel);
        });
        const names = { ok: "sheet-ok", cancel: "sheet-cancel", apply: "sheet-apply" };
        for (const [field, id] of Object.entries(names)) {
            const key = fillMnemonic($(id), message[field]);
            if (key)
                $(id).accessKey = key;
        }
        $("sheet").hidden = false;
        $("ended").hidden = true;
    }

    function sheetState(message) {
        $("sheet-title").textContent = message.title;
        if (sheet)
            for (const page of sheet.pages) {
                const current = page.window === message.current;
                $("tab-" + page.window).setAttribute("aria-selected", current ? "true" : "false");
                $("tab-" + page.window).tabIndex = current ? 0 : -1;
                $("page-" + page.window).hidden = !current;
            }
        $("sheet-apply").disabled = !message.apply_enabled;
        document.body.dataset.cursor = message.cursor;
    }

    function openWindow(message) {
        const frame = el("section", "cw-window" + (message.modal ? " cw-window-modal" : ""));
        frame.id = "frame-" + message.window;
        frame.setAttribute("role", "dialog");
        frame.setAttribute("aria-labelledby", "frame-title-" + message.window);
        const bar = el("header", "cw-window-bar");
        const title = el("h2", "cw-window-title", message.title);
        title.id = "frame-title-" + message.window;
        bar.appendChild(title);
        if (!message.modal) {
            const close = el("button", "cw-window-close", "\u00d7");
            close.type = "button";
            close.id = "close-" + message.window;
            close.setAttribute("aria-label", "Close");
            close.addEventListener("click", () => send({ do: "close", window: message.window }));
            bar.appendChild(close);
        }
        frame.appendChild(bar);
        const layer = el("div", "cw-layer" + (message.modal ? " cw-backdrop" : ""));
        layer.id = "layer-" + message.window;
        layer.appendChild(frame);
        $("windows").appendChild(layer);
        const win = makeWindow(message.window, message, false, frame);
        win.layer = layer;
        win.title = title;
        followMouse(win);
    }

    // Mouse moves and releases over another window (the drift graph), in the process's pixels.
    function followMouse(win) {
        let queued = null;
        const at = event => {
            const r = win.surface.getBoundingClientRect();
            return {
                x: Math.round((event.clientX - r.left) / units.x * processUnits.x),
                y: Math.round((event.clientY - r.top) / units.y * processUnits.y)
            };
        };
        let last = "";
        win.surface.addEventListener("mousemove", event => {
            if (event.target.closest("button, input, select, textarea"))
                return;
            const p = at(event);
            const moved = p.x + "," + p.y;
            if (moved === last)
                return;
            last = moved;
            if (!queued)
                requestAnimationFrame(() => {
                    send(Object.assign({ do: "mouse", window: win.number }, queued));
                    queued = null;
                });
            queued = p;
        });
        win.surface.addEventListener("mouseup", event => {
            if (event.button !== 0 || event.target.closest("button, input, select, textarea"))
                return;
            send(Object.assign({ do: "mouse", window: win.number, click: true }, at(event)));
        });
    }

    function closeWindow(number) {
        const win = windows.get(number);
        if (!win || win.page)
            return;
        win.layer.remove();
        windows.delete(number);
    }

    function picture(message) {
        const win = windows.get(message.window);
        const c = win && win.controls.get(String(message.id));
        if (!c)
            return;
        let img = c.node.querySelector("img.cw-picture");
        if (!img) {
            img = el("img", "cw-picture");
            img.alt = "";
            img.draggable = false;
            c.node.appendChild(img);
        }
        img.src = "data:image/svg+xml;charset=utf-8," + encodeURIComponent(message.svg);
        img.dataset.width = message.width;
        img.dataset.height = message.height;
    }

    /* ---------------------------------------------------------------- questions */

    function ask(message) {
        questions.push(message);
        showQuestion();
    }

    function answer(question, fields) {
        send(Object.assign({ do: "answer", question: question.question }, fields));
        questions = questions.filter(q => q !== question);
        $("modal").hidden = true;
        shownQuestion = null;
        showQuestion();
    }

    function showQuestion() {
        if (shownQuestion || !questions.length)
            return;
        const q = shownQuestion = questions[0];
        const body = $("modal-body");
        const actions = $("modal-actions");
        body.textContent = "";
        actions.textContent = "";
        $("modal-icon").className = "cw-modal-icon" + (q.icon ? " cw-icon-" + q.icon : "");
        $("modal-icon").hidden = !q.icon;
        let first = null;
        if (q.event === "box") {
            $("modal-title").textContent = q.caption;
            body.appendChild(el("p", "cw-modal-text", q.text.replace(/\r\n/g, "\n")));
            q.buttons.forEach((b, i) => {
                const button = el("button", "cw-button " + (i === 0 ? "cw-primary" : "cw-secondary"));
                button.type = "button";
                button.dataset.answer = b.answer;
                fillMnemonic(button, b.text);
                button.addEventListener("click", () => answer(q, { answer: b.answer }));
                actions.appendChild(button);
                first = first || button;
            });
        } else {
            $("modal-title").textContent = q.title;
            const label = el("label", "cw-field-label", q.filter + " (" + q.pattern + ")");
            const path = el("input", "cw-edit cw-path");
            path.type = "text";
            path.id = "modal-path";
            path.value = q.path || (q.initial_dir ? q.initial_dir.replace(/\/?$/, "/") : "");
            label.htmlFor = path.id;
            body.append(label, path);
            const open = el("button", "cw-button cw-primary", "Open");
            const cancel = el("button", "cw-button cw-secondary", "Cancel");
            open.type = cancel.type = "button";
            open.id = "modal-open";
            cancel.id = "modal-cancel";
            open.addEventListener("click", () => answer(q, { path: path.value }));
            cancel.addEventListener("click", () => answer(q, { path: "" }));
            path.addEventListener("keydown", event => { if (event.key === "Enter") open.click() });
            actions.append(open, cancel);
            first = path;
        }
        $("modal").hidden = false;
        $("modal").dataset.question = q.question;
        first.focus();
    }

    // Escape: the question's Cancel, where it has one.
    function escapeQuestion() {
        const q = shownQuestion;
        if (!q)
            return;
        if (q.event === "choose_file")
            answer(q, { path: "" });
        else if (q.buttons.some(b => b.answer === 2))
            answer(q, { answer: 2 });
        else if (q.buttons.length === 1)
            answer(q, { answer: q.buttons[0].answer });
    }

    /* ---------------------------------------------------------------- documents and notes */

    function showDocument(message) {
        $("document-title").textContent = message.path;
        $("document-text").textContent = message.text.replace(/\r\n/g, "\n");
        $("document").hidden = false;
        $("document-close").focus();
    }

    function alertLine(kind, text) {
        const line = el("div", "cw-alert cw-alert-" + kind, text);
        $("alerts").appendChild(line);
        return line;
    }

    /* ---------------------------------------------------------------- the process */

    function handle(message) {
        switch (message.event) {
        case "sheet":
            drawSheet(message);
            break;
        case "state": {
            const win = windows.get(message.window);
            if (win)
                for (const [key, fields] of Object.entries(message.controls)) {
                    const c = win.controls.get(key);
                    if (c)
                        update(c, fields);
                }
            break;
        }
        case "sheet_state":
            sheetState(message);
            break;
        case "open":
            openWindow(message);
            break;
        case "window": {
            const win = windows.get(message.window);
            if (win) {
                win.title.textContent = message.title;
                win.surface.dataset.cursor = message.cursor;
            }
            break;
        }
        case "close":
            closeWindow(message.window);
            break;
        case "picture":
            picture(message);
            break;
        case "box":
            if (message.question === undefined)
                alertLine("danger", plainText(message.text)).id = "launch-message";
            else
                ask(message);
            break;
        case "choose_file":
            ask(message);
            break;
        case "document":
            showDocument(message);
            break;
        case "url":
            window.open(message.url, "_blank", "noopener");
            break;
        case "error":
            console.warn("chronwarden applet refused:", message.message, message.input);
            redrawAll();
            break;
        case "end":
            ended(message.result);
            break;
        }
    }

    function ended(result) {
        proc = null;
        $("sheet").hidden = true;
        $("windows").textContent = "";
        $("modal").hidden = true;
        questions = [];
        shownQuestion = null;
        $("ended-text").textContent = result === 1 ? "The settings were saved and the applet closed."
            : result === 0 ? "The applet was closed." : "The applet could not be shown.";
        $("ended").hidden = false;
        $("reopen").focus();
    }

    function start() {
        $("alerts").textContent = "";
        $("ended").hidden = true;
        pending = "";
        const p = proc = cockpit.spawn(COMMAND, { superuser: "try", err: "message" });
        p.stream(data => {
            pending += data;
            let nl;
            while ((nl = pending.indexOf("\n")) >= 0) {
                const line = pending.slice(0, nl);
                pending = pending.slice(nl + 1);
                if (!line.trim())
                    continue;
                let message;
                try {
                    message = JSON.parse(line);
                } catch (e) {
                    console.warn("chronwarden applet: not a JSON line:", line);
                    continue;
                }
                handle(message);
            }
        });
        p.then(() => {
            if (proc === p)
                ended(0);
        }).catch(problem => {
            if (proc === p)
                proc = null;
            $("sheet").hidden = true;
            const why = problem.message || problem.problem || String(problem);
            if (!$("launch-message"))
                alertLine("danger", "The Chronwarden applet could not be started: " + why);
            $("ended-text").textContent = "";
            $("ended").hidden = false;
        });
    }

    function init() {
        units = measureUnits();
        $("sheet-ok").addEventListener("click", () => send({ do: "ok" }));
        $("sheet-cancel").addEventListener("click", () => send({ do: "cancel" }));
        $("sheet-apply").addEventListener("click", () => send({ do: "apply" }));
        $("reopen").addEventListener("click", start);
        $("document-close").addEventListener("click", () => { $("document").hidden = true });
        document.addEventListener("keydown", event => {
            if (event.key !== "Escape")
                return;
            if (!$("document").hidden)
                $("document").hidden = true;
            else
                escapeQuestion();
        });
        start();
    }

    // The units depend on the font: measured once Cockpit's type is loaded.
    document.addEventListener("DOMContentLoaded", () => {
        const ready = document.fonts ? document.fonts.load("13px RedHatText") : Promise.resolve();
        ready.then(init, init);
    });
}());
