// Looks for what a visitor would do to see the page's video, and does it, or says where to press.
//
// Returns null, or {what, x, y} for a place in the window that is to be pressed, or {what} for what
// has been done; isScroll with it for the scroll.
(mayScroll) => {
  const mostElements = 20000, names = 200;
  const playWords = /(^|[^a-z])(play|watch|start|listen|abspielen|ansehen|lire|lecture|regarder|reproducir|ver|riproduci|guarda|assistir|afspelen|bekijk|odtw|смотреть|воспроизвести|播放|再生|재생)([^a-z]|$)/i;
  const playMarks = /(^|[^a-z])(big-?)?play(-?(button|btn|icon|control|overlay|video|now|large|big))?([^a-z]|$)|(^|[^a-z])playbtn|playbutton|btn-?play|button-?play/i;
  const otherWords = /playlist|playback|display|player settings|app store|google play|replay|autoplay|next|pause|trailer/i;
  const answerWords = /(^|[^a-z])(accept|agree|allow|ok|okay|got it|i understand|continue|yes|close|dismiss|skip|enter|confirm|akzeptieren|zustimmen|einverstanden|schlie|weiter|accepter|fermer|continuer|aceptar|cerrar|continuar|accetta|chiudi|aceitar|fechar|akkoord|принять|закрыть|同意|閉じる|동의)([^a-z]|$)|^[×✕✖x]$/i;
  const answerMarks = /accept|agree|consent|close|dismiss/i;

  const box = (e) => e.getBoundingClientRect();
  const area = (e) => { const b = box(e); return b.width * b.height; };
  const isSeen = (e) => {
    const b = box(e);
    if (b.width < 8 || b.height < 8) return false;
    if (b.bottom <= 0 || b.right <= 0 || b.top >= innerHeight || b.left >= innerWidth) return false;
    const s = getComputedStyle(e);
    return s.visibility === 'visible' && s.display !== 'none' && Number(s.opacity) > 0.05 &&
           s.pointerEvents !== 'none';
  };
  const nameOf = (e) => {
    const label = e.getAttribute('aria-label') || e.getAttribute('title') || e.getAttribute('alt') ||
                  (e.localName === 'input' ? e.value : '') || e.textContent || '';
    return label.trim().slice(0, names);
  };
  const marksOf = (e) => [e.id, e.getAttribute('class') || '', e.getAttribute('data-testid') || '',
                          e.getAttribute('data-action') || ''].join(' ').slice(0, names);
  const isControl = (e) => /^(button|a|summary)$/.test(e.localName) ||
      (e.localName === 'input' && /^(button|submit|image)$/.test(e.type)) ||
      /^(button|link)$/.test(e.getAttribute('role') || '') || e.hasAttribute('onclick') ||
      e.tabIndex >= 0;

  const all = [];
  const collect = (tree) => {
    const walker = document.createTreeWalker(tree, NodeFilter.SHOW_ELEMENT);
    for (let e = walker.nextNode(); e && all.length < mostElements; e = walker.nextNode()) {
      all.push(e);
      if (e.shadowRoot) collect(e.shadowRoot);
    }
  };
  collect(document);

  const isPlayer = (e) => /^(video|audio|iframe|object|embed)$/.test(e.localName) ||
      /(^|[^a-z])(video|player|jwplayer|vjs|plyr|mejs|media)([^a-z]|$)/i.test(marksOf(e)) ||
      /^(video|[a-z]+-player|[a-z]+-video)$/.test(e.localName);
  let player = null, size = 0;
  for (const e of all) {
    if (!isPlayer(e)) continue;
    const b = box(e), s = Math.min(b.width, 2 * innerWidth) * Math.min(b.height, 2 * innerHeight);
    if (b.width >= 120 && b.height >= 60 && s > size) { player = e; size = s; }
  }

  if (mayScroll && player) {
    const b = box(player), middle = (b.top + b.bottom) / 2;
    if (middle < 0 || middle > innerHeight) {
      player.scrollIntoView({block: 'center', behavior: 'instant'});
      return {what: 'brought its player into view', isScroll: true};
    }
  }

  const pointOf = (e) => {
    const b = box(e);
    const x = (Math.max(0, b.left) + Math.min(innerWidth, b.right)) / 2;
    const y = (Math.max(0, b.top) + Math.min(innerHeight, b.bottom)) / 2;
    return {x, y};
  };
  const topAt = (point) => {
    let e = document.elementFromPoint(point.x, point.y);
    while (e && e.shadowRoot) {
      const inner = e.shadowRoot.elementFromPoint(point.x, point.y);
      if (!inner || inner === e) break;
      e = inner;
    }
    return e;
  };
  const holds = (outer, inner) => {
    for (let e = inner; e; e = e.parentNode || e.host) if (e === outer) return true;
    return false;
  };
  const largest = (list) => list.reduce((best, e) => !best || area(e) > area(best) ? e : best, null);
  const say = (deed, e) => ({what: deed + ' "' + (nameOf(e) || marksOf(e).trim()).slice(0, 60) + '"',
                             ...pointOf(e)});

  // What lies over the player, or over the window's middle, and is no part of the player.
  const middle = player && isSeen(player) ? pointOf(player) : {x: innerWidth / 2, y: innerHeight / 2};
  let cover = topAt(middle);
  while (cover && !(/^(fixed|absolute|sticky)$/.test(getComputedStyle(cover).position) &&
                    area(cover) > 0.1 * innerWidth * innerHeight))
    cover = cover.parentElement || (cover.getRootNode() && cover.getRootNode().host) || null;
  const isForeign = cover && cover !== document.body && !(player && (holds(player, cover) ||
      holds(cover, player) || (player.parentElement && holds(player.parentElement, cover) &&
                               player.parentElement !== document.body)));
  const dialogs = all.filter((e) => (e.localName === 'dialog' && e.open) ||
      /^(dialog|alertdialog)$/.test(e.getAttribute('role') || '')).filter(isSeen);
  const over = isForeign ? cover : largest(dialogs);
  if (over) {
    const answers = all.filter((e) => holds(over, e) && isControl(e) && isSeen(e) &&
        (answerWords.test(nameOf(e)) || answerMarks.test(marksOf(e))));
    const isYes = (e) => /accept|agree|allow|ok|yes|continue|akzept|zustimm|accepter|aceptar|accetta|aceitar|akkoord|принять|同意|동의/i.test(nameOf(e) + marksOf(e));
    const answer = largest(answers.filter(isYes)) || largest(answers);
    if (answer) return say('answered', answer);
  }

  const tried = window.triedByHand || (window.triedByHand = new WeakSet());
  const controls = all.filter((e) => !tried.has(e) && isSeen(e) &&
      ((isControl(e) && playWords.test(nameOf(e))) || playMarks.test(marksOf(e))) &&
      !otherWords.test(nameOf(e)) && !otherWords.test(marksOf(e)) &&
      area(e) < 0.9 * innerWidth * innerHeight);
  // Of nested ones the inner is what can be seen; among the others, what is a control comes first.
  const inner = controls.filter((e) => !controls.some((other) => other !== e && holds(e, other)));
  const control = largest(inner.filter(isControl)) || largest(inner);
  if (control) {
    tried.add(control);
    return say('pressed', control);
  }

  const videos = all.filter((e) => /^(video|audio)$/.test(e.localName) && !tried.has(e));
  if (videos.length > 0) {
    for (const video of videos) {
      tried.add(video);
      video.muted = true;
      Promise.resolve(video.play()).catch(() => {});
    }
    return {what: 'played ' + videos.length + ' media elements'};
  }
  if (player && !tried.has(player) && isSeen(player)) {
    tried.add(player);
    return say('pressed the player', player);
  }
  return null;
}
