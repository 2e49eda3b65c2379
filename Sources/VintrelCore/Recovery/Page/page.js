'use strict';
// Makes the table of files searchable. Nothing from a disk becomes markup: rows move as they are, and text is set as text.
// The part of the address behind # chooses: #soeg=…&chance=god&type=billeder&mappe=DCIM&sorter=størrelse&side=2
(() => {
    document.documentElement.classList.add('scripted');

    const rowsOnPage = 200;
    const maxFolders = 5000; // more make no list that anybody reads
    const column = { name: 0, folder: 1, type: 2, size: 3, chance: 7, unreadable: 8, note: 9 };
    const chances = ['god', 'delvis', 'ringe', 'ukendt'];
    const numbers = new Intl.NumberFormat('da');
    const alphabet = new Intl.Collator('da', { numeric: true, sensitivity: 'base' });
    // Pictures that can hold a script of their own are not among them.
    const players = [
        ['img', /\.(jpe?g|png|gif|webp|bmp|avif)$/i],
        ['video', /\.(mp4|m4v|mov|webm|mkv|ogv)$/i],
        ['audio', /\.(mp3|m4a|aac|wav|ogg|oga|opus|flac)$/i],
    ];
    const byID = id => document.getElementById(id);

    let files = []; // all of them, in the order of the page
    let chosen = []; // those that the choice lets through, in the order that is shown
    let page = 0;
    let order = { column: null, falls: false };
    let open = -1; // the place in `chosen` of the file in the details

    function readFile(row) {
        // The last row of a page that was cut short may lack cells.
        const text = index => row.cells[index]?.textContent ?? '';
        const link = row.querySelector('a');
        const name = row.querySelector('a, span')?.textContent ?? '';
        return {
            row, text, name,
            url: link && link.getAttribute('href'),
            folder: text(column.folder),
            type: text(column.type),
            chance: text(column.chance).toLowerCase(),
            words: [name, text(column.folder), text(column.note)].join('\n').toLowerCase(),
            hasTools: false,
        };
    }

    function preview(file) {
        const kind = file.url && players.find(([, pattern]) => pattern.test(file.name));
        if (!kind)
            return null;
        const element = document.createElement(kind[0]);
        element.className = 'preview';
        if (kind[0] === 'img') {
            element.loading = 'lazy';
            element.decoding = 'async';
            element.alt = '';
            element.addEventListener('error', () => element.remove());
        } else {
            element.preload = 'none';
            element.controls = true;
        }
        element.src = file.url;
        return element;
    }

    function addTools(file) {
        file.hasTools = true;
        const cell = file.row.cells[column.name];
        if (!cell)
            return;
        const picture = preview(file);
        if (picture)
            cell.prepend(picture);
        const button = document.createElement('button');
        button.type = 'button';
        button.textContent = 'Detaljer';
        button.setAttribute('aria-label', 'Detaljer om ' + file.name);
        button.addEventListener('click', () => showDetails(chosen.indexOf(file)));
        cell.append(button);
    }

    // --- choosing

    function option(select, value, words, count) {
        const element = document.createElement('option');
        element.value = value;
        element.textContent = words + ' (' + numbers.format(count) + ')';
        select.append(element);
        return element;
    }

    function counted(key) {
        const counts = new Map();
        for (const file of files)
            counts.set(key(file), (counts.get(key(file)) ?? 0) + 1);
        return counts;
    }

    // A folder counts what lies in the folders below it too.
    function folderCounts() {
        const counts = new Map();
        for (const [folder, count] of counted(file => file.folder))
            for (let path = folder; path !== ''; path = path.slice(0, Math.max(path.lastIndexOf('/'), 0)))
                counts.set(path, (counts.get(path) ?? 0) + count);
        return counts;
    }

    function fillChoice() {
        for (const id of ['chance', 'type', 'folder'])
            option(byID(id), '', 'Alle', files.length);
        const byChance = counted(file => file.chance);
        for (const chance of chances)
            if (byChance.has(chance))
                option(byID('chance'), chance, chance[0].toUpperCase() + chance.slice(1), byChance.get(chance));
        for (const [type, count] of [...counted(file => file.type)].sort())
            option(byID('type'), type.toLowerCase(), type, count);
        const folders = [...folderCounts()].sort(([one], [other]) => alphabet.compare(one, other));
        for (const [path, count] of folders.slice(0, maxFolders)) {
            const parts = path.split('/');
            option(byID('folder'), path, '\u00a0\u00a0'.repeat(parts.length - 1) + parts.at(-1), count);
        }
    }

    function isChosen(file, search, chance, type, folder) {
        return (!search || file.words.includes(search)) && (!chance || file.chance === chance)
            && (!type || file.type.toLowerCase() === type)
            && (!folder || file.folder === folder || file.folder.startsWith(folder + '/'));
    }

    function sortKey(file) {
        if (order.column === column.name)
            return file.name;
        if (order.column === column.size || order.column === column.unreadable)
            return Number(file.row.cells[order.column]?.dataset.value ?? 0);
        return order.column === column.chance ? chances.indexOf(file.chance) : file.text(order.column);
    }

    function sortChosen() {
        if (order.column === null)
            return;
        const keyed = chosen.map(file => [sortKey(file), file]);
        const compare = typeof keyed[0]?.[0] === 'number' ? (one, other) => one - other : alphabet.compare;
        keyed.sort(([one], [other]) => order.falls ? compare(other, one) : compare(one, other));
        chosen = keyed.map(([, file]) => file);
    }

    function choose() {
        const values = ['search', 'chance', 'type', 'folder'].map(id => byID(id).value);
        values[0] = values[0].trim().toLowerCase();
        chosen = files.filter(file => isChosen(file, ...values));
        sortChosen();
        showPage();
    }

    // --- showing

    function showPage() {
        const last = Math.max(0, Math.ceil(chosen.length / rowsOnPage) - 1);
        page = Math.min(Math.max(page, 0), last);
        const start = page * rowsOnPage;
        const shown = chosen.slice(start, start + rowsOnPage);
        shown.filter(file => !file.hasTools).forEach(addTools);
        byID('files').tBodies[0].replaceChildren(...shown.map(file => file.row));
        byID('count').textContent = chosen.length === 0 ? 'Ingen filer passer til valget.'
            : 'Viser ' + numbers.format(start + 1) + '–' + numbers.format(start + shown.length) + ' af '
                + numbers.format(chosen.length) + ' filer';
        byID('previous').disabled = page === 0;
        byID('next').disabled = page === last;
        for (const header of headers())
            header.setAttribute('aria-sort', header.cellIndex !== order.column ? 'none'
                : order.falls ? 'descending' : 'ascending');
        document.body.dataset.shown = chosen.length;
    }

    function showDetails(place) {
        const file = chosen[place];
        if (!file)
            return;
        open = place;
        if (!file.hasTools)
            addTools(file);
        byID('details-name').textContent = file.name;
        byID('details-preview').replaceChildren(...[preview(file)].filter(Boolean));
        const pairs = headers().slice(1).flatMap(header => {
            const term = document.createElement('dt');
            const words = document.createElement('dd');
            term.textContent = header.textContent;
            words.textContent = file.text(header.cellIndex) || '–';
            return [term, words];
        });
        byID('details-list').replaceChildren(...pairs);
        byID('details-previous').disabled = place === 0;
        byID('details-next').disabled = place === chosen.length - 1;
        if (!byID('details').open)
            byID('details').showModal();
    }

    const headers = () => [...byID('files').tHead.rows[0].cells];

    // --- the address

    const names = { soeg: 'search', chance: 'chance', type: 'type', mappe: 'folder' };

    function readAddress() {
        const address = new URLSearchParams(location.hash.slice(1));
        for (const [name, id] of Object.entries(names)) {
            const given = address.get(name) ?? '';
            const value = id === 'search' || id === 'folder' ? given : given.toLowerCase();
            byID(id).value = value;
            // What no file has can still be asked for, and leaves none.
            if (byID(id).value !== value && id !== 'search')
                option(byID(id), value, value, 0).selected = true;
        }
        const sorted = (address.get('sorter') ?? '').toLowerCase();
        const header = headers().find(cell => cell.textContent.toLowerCase() === sorted.replace(/^-/, ''));
        order = { column: header ? header.cellIndex : null, falls: sorted.startsWith('-') };
        page = (Number.parseInt(address.get('side') ?? '1', 10) || 1) - 1;
        choose();
    }

    function writeAddress() {
        const address = new URLSearchParams();
        for (const [name, id] of Object.entries(names))
            if (byID(id).value)
                address.set(name, byID(id).value);
        if (order.column !== null)
            address.set('sorter', (order.falls ? '-' : '') + headers()[order.column].textContent.toLowerCase());
        if (page > 0)
            address.set('side', page + 1);
        try {
            history.replaceState(null, '', '#' + address);
        } catch {
            // Some browsers allow no change of the address of a file. The page works without it.
        }
    }

    function listen() {
        const turn = step => { page += step; showPage(); writeAddress(); };
        const chooseAnew = () => { page = 0; choose(); writeAddress(); };
        byID('choice').addEventListener('input', chooseAnew);
        byID('choice').addEventListener('submit', event => event.preventDefault());
        byID('choice').addEventListener('reset', () => setTimeout(() => { order.column = null; chooseAnew(); }));
        byID('previous').addEventListener('click', () => turn(-1));
        byID('next').addEventListener('click', () => turn(1));
        byID('details-previous').addEventListener('click', () => showDetails(open - 1));
        byID('details-next').addEventListener('click', () => showDetails(open + 1));
        byID('details-close').addEventListener('click', () => byID('details').close());
        byID('details').addEventListener('close', () => byID('details-preview').replaceChildren());
        window.addEventListener('hashchange', readAddress);
        for (const header of headers()) {
            const button = document.createElement('button');
            button.type = 'button';
            button.append(...header.childNodes);
            header.append(button);
            button.addEventListener('click', () => {
                const isAgain = order.column === header.cellIndex;
                order = { column: header.cellIndex, falls: isAgain && !order.falls };
                chooseAnew();
            });
        }
    }

    document.addEventListener('DOMContentLoaded', () => {
        const table = byID('files');
        const read = table.tBodies[0];
        read.replaceWith(document.createElement('tbody'));
        files = Array.from(read.rows, readFile);
        table.classList.remove('unread');
        byID('stopped').hidden = byID('summary') !== null;
        byID('choice').hidden = byID('pages').hidden = false;
        fillChoice();
        listen();
        readAddress();
        document.body.dataset.files = files.length;
        document.body.dataset.readyMs = Math.round(performance.now());
    });
})();
