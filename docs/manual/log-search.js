// Lets the search find log texts: by a part of one, or by a whole line that is pasted from a log.
{
    const root = document.currentScript.getAttribute("src").replace("log-search.js", "");

    // A text as a pattern of the lines that it makes: where it has a conversion, they may have anything.
    const pattern = text =>
        new RegExp(text.replace(/[.*+?^${}()|[\]\\]/g, "\\$&").replace(/%[0-9.]*[a-z]+/g, ".*"), "i");

    const linked = ([text, anchor, names]) => {
        const link = document.createElement("a");
        link.href = root + "log_messages.html#" + anchor;
        link.textContent = names[0] + "(): " + text;
        return link;
    };

    // What is found stands above what Doxygen's own search finds. Its field is made late, so the document listens.
    document.addEventListener("input", event => {
        if (event.target.id !== "MSearchField")
            return;
        const wanted = event.target.value.trim();
        const hits = wanted.length < 3 ? [] : logTexts.filter(([text]) =>
            text.toLowerCase().includes(wanted.toLowerCase()) || pattern(text).test(wanted));
        const sure = hits.filter(([, , names]) => names.some(name => wanted.includes(name + "(")));

        const frame = document.getElementById("MSearchResults");
        const found = document.getElementById("log-hits") ?? document.createElement("div");
        found.id = "log-hits";
        found.replaceChildren(...(sure.length !== 0 ? sure : hits).slice(0, 8).map(linked));
        found.hidden = hits.length === 0;
        frame.hidden = hits.length !== 0 && wanted.includes(" "); // no name in its index has a space
        frame.before(found);
    });
}
