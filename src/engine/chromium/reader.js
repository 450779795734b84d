// What a scan for media reads of a document: its markup, that of its open shadow trees, the
// attributes of its "param" elements, and what its media elements are to play.
(() => {
  const most = 16 << 20, manyElements = 300000;
  const root = document.documentElement;
  if (!root) return {source: '', params: [], media: []};
  const textOf = (node) => node === root ? root.outerHTML : new XMLSerializer().serializeToString(node);
  const parts = [Array.from(document.childNodes, textOf).join('')], media = new Set(), params = [];
  let length = parts[0].length, seen = 0;
  const look = (tree) => {
    const walker = document.createTreeWalker(tree, NodeFilter.SHOW_ELEMENT);
    for (let e = walker.currentNode; e && seen < manyElements; e = walker.nextNode(), ++seen) {
      const name = e.localName;
      if (name === 'video' || name === 'audio') { media.add(e.currentSrc); media.add(e.src); }
      else if (name === 'source') media.add(e.src);
      else if (name === 'param')
        params.push(Array.from(e.attributes, (a) => [a.name, a.value]));
      if (e.shadowRoot) {
        const html = e.shadowRoot.innerHTML;
        length += html.length;
        if (length < most) parts.push(html);
        look(e.shadowRoot);
      }
    }
  };
  look(document);
  return {source: parts.join('\n').slice(0, most), params: params.slice(0, 1000),
          media: Array.from(media).filter((a) => /^https?:/.test(a)).slice(0, 1000)};
})()
