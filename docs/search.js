// The search of the reference. It finds the sections that contain all words of the query, also inside longer words and
// with hyphens ("timeout" finds "time-out"). scripts/docs appends this file to Doxygen's search.js and so replaces its
// searchFor(), which requires a server. The sections are a script: a page that is opened as a file cannot fetch files.

function searchFor(query) {
  const loader = document.createElement("script");
  loader.src = "search/sections.js"; // defines sections: [place, title of the page, heading, text]
  loader.onload = () => show(query, patternsOf(query));
  document.head.append(loader);
}

function patternsOf(query) {
  const escaped = (letter) => letter.replace(/\W/, "\\$&");
  return query.split(/[\s-]+/).filter(Boolean).map((word) => new RegExp([...word].map(escaped).join("-?"), "i"));
}

// Returns 0 if the title is the word, 1 if it begins with the word, 2 if it contains the word, 3 otherwise.
function rank(title, pattern) {
  const match = pattern.exec(title);
  return !match ? 3 : match.index ? 2 : match[0].length < title.length ? 1 : 0;
}

function find(patterns) {
  return sections
    .filter((section) => patterns.every((pattern) => pattern.test(section.join(" "))))
    .map((section) => {
      const title = (section[2] || section[1]).replace("()", "");
      const last = section[1].endsWith("File Reference") ? 1 : 0; // lists the declarations of a file
      return [patterns.reduce((sum, pattern) => sum + rank(title, pattern), last), section];
    })
    .sort((left, right) => left[0] - right[0])
    .map(([, section]) => section);
}

function show(query, patterns) {
  const found = find(patterns);
  const count = element("p", `${found.length} ${found.length === 1 ? "section contains" : "sections contain"} “${query}”.`);
  const items = found.map(([place, page, heading, text]) => {
    const link = element("a", heading || page);
    link.href = place;
    return element("li", link, heading ? ` – ${page}` : "", element("p", ...excerpt(text, patterns)));
  });
  document.getElementById("searchresults").replaceChildren(count, element("ol", ...items));
  document.getElementById("MSearchField").value = query;
}

// Returns about 200 characters around the first word, with every word in bold.
function excerpt(text, patterns) {
  const at = text.search(patterns[0]);
  const begin = at < 80 ? 0 : text.indexOf(" ", at - 80) + 1;
  const part = (begin ? "… " : "") + text.slice(begin, begin + 200) + (begin + 200 < text.length ? " …" : "");
  const words = new RegExp(`(${patterns.map((pattern) => pattern.source).join("|")})`, "i");
  return part.split(words).map((piece, number) => (number % 2 ? element("b", piece) : piece));
}

function element(name, ...contents) {
  const created = document.createElement(name);
  created.append(...contents);
  return created;
}
