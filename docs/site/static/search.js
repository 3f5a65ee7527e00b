// Sphinx's search lists the pages that have all words, and orders equal ones by title. This lists the guide
// first. If no page has all words, it lists those that have any of them, the most of them first.
"use strict";

document.addEventListener("DOMContentLoaded", () => {
    if (typeof Search === "undefined") {
        return;
    }
    const sphinx = Search.performTermsSearch;
    const every = (...question) => {
        const hits = sphinx(...question);
        for (const hit of hits) {
            hit[4] += hit[0].startsWith("docs/guide/") ? 1 : 0; // the page's name, and its score
        }
        return hits;
    };
    Search.performTermsSearch = (words, ...others) => {
        const found = every(words, ...others);
        if (found.length > 0 || words.size < 2) {
            return found;
        }
        const pages = new Map();
        for (const word of words) {
            for (const hit of every(new Set([word]), ...others)) {
                const key = hit[0] + hit[2];
                const other = pages.get(key);
                hit[4] += other ? other[4] + 100 : 0;
                pages.set(key, hit);
            }
        }
        return [...pages.values()];
    };
});
