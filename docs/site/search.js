// The search of the site: looks in every part of every page, in the reader's browser.
"use strict";

{
    const query = document.getElementById("site-query");
    const hits = document.getElementById("site-hits");
    const most = 30;

    const parts = searchIndex.map(([page, heading, address, text]) => ({
        page, heading, address, text,
        title: (heading || page).toLowerCase(),
        where: page.toLowerCase(),
        words: text.toLowerCase(),
    }));

    // How well a part answers: each word has to be in it, and counts by where it is.
    function score(part, words) {
        let sum = part.heading ? 0 : 5;
        for (const word of words) {
            if (part.title === word || part.title.startsWith(word + "(")) {
                sum += 100;
            } else if (part.title.startsWith(word) || part.title.includes("::" + word)) {
                sum += 60;
            } else if (part.title.includes(word)) {
                sum += 40;
            } else if (part.where.includes(word)) {
                sum += 20;
            } else if (part.words.includes(word)) {
                sum += 10;
            } else {
                return 0;
            }
        }
        // Lists and programs come behind what is said about a thing.
        return /^(abi|changelog|example)/.test(part.address) ? sum / 10 : sum;
    }

    // Some words of the part round the first one that was asked for.
    function excerpt(part, word) {
        const found = Math.max(0, part.words.indexOf(word));
        const from = found < 60 ? 0 : part.text.indexOf(" ", found - 60) + 1;
        const rest = part.text.slice(from);
        const text = rest.length <= 160 ? rest : rest.slice(0, rest.lastIndexOf(" ", 160)) + " …";
        return (from ? "… " : "") + text;
    }

    function item(part, words) {
        const entry = document.createElement("li");
        const link = document.createElement("a");
        link.href = part.address;
        const title = document.createElement("b");
        title.textContent = part.heading || part.page;
        const place = document.createElement("span");
        place.textContent = part.heading ? part.page : "";
        const text = document.createElement("small");
        text.textContent = excerpt(part, words[0]);
        link.append(title, " ", place, text);
        entry.append(link);
        return entry;
    }

    function show() {
        const words = query.value.toLowerCase().split(/\s+/).filter(Boolean);
        hits.replaceChildren();
        hits.hidden = words.length === 0;
        if (hits.hidden) {
            return;
        }
        const found = parts.map((part) => [score(part, words), part])
            .filter(([points]) => points > 0)
            .sort(([left], [right]) => right - left)
            .slice(0, most);
        hits.append(...found.map(([, part]) => item(part, words)));
        if (found.length === 0) {
            const none = document.createElement("li");
            none.textContent = "Nothing has all of these words.";
            hits.append(none);
        }
    }

    // Down and up go through the hits, from the field and back to it.
    function step(forward) {
        const stops = [query, ...hits.querySelectorAll("a")];
        const here = stops.indexOf(document.activeElement);
        const next = stops[here + (forward ? 1 : -1)];
        if (here >= 0 && next) {
            next.focus();
        }
    }

    document.addEventListener("keydown", (event) => {
        if (event.key === "/" && document.activeElement !== query) {
            event.preventDefault();
            query.focus();
        } else if (event.key === "Escape") {
            hits.hidden = true;
            query.blur();
        } else if (event.key === "ArrowDown" || event.key === "ArrowUp") {
            if (!hits.hidden && document.getElementById("site-search").contains(document.activeElement)) {
                event.preventDefault();
                step(event.key === "ArrowDown");
            }
        }
    });
    query.addEventListener("input", show);
    query.addEventListener("focus", show);
    document.getElementById("site-search").addEventListener("submit", (event) => {
        event.preventDefault();
        hits.querySelector("a")?.click();
    });
    document.addEventListener("click", (event) => {
        if (!document.getElementById("site-search").contains(event.target)) {
            hits.hidden = true;
        }
    });

    // The menu is open beside the page, and closed above it where there is little room.
    const menu = document.querySelector("#menu details");
    const narrow = window.matchMedia("(max-width: 60rem)");
    const fold = () => { menu.open = !narrow.matches; };
    narrow.addEventListener("change", fold);
    fold();
    // Pages of classes, headers and namespaces are in the list behind "Reference".
    const here = (location.pathname.split("/").pop() || "index.html")
        .replace(/^(class|struct|namespace|union).*|.*_8h\.html$/, "reference.html");
    for (const link of menu.querySelectorAll("a")) {
        if (link.getAttribute("href") === here) {
            link.setAttribute("aria-current", "page");
        }
    }
    // For a link from elsewhere to a search: index.html?q=words.
    const asked = new URLSearchParams(location.search).get("q");
    if (asked) {
        query.value = asked;
        show();
    }
}
