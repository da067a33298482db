// @ts-check
// The workspace page: views that own its elements, and a controller that owns its flow, wired.
import { byId, fillTexts } from './dom.js';
import { createMarkdown } from './markdown.js';
import { Controller } from './controller.js';
import { getJson, postJson } from './api.js';
import { EventSocket } from './socket.js';
import { ThreadView } from './threadView.js';
import { AskView } from './askView.js';
import { ServiceView } from './serviceView.js';
import { ThreadList } from './threadList.js';
import { Attachments } from './attachments.js';
import { ModelPicker } from './models.js';
import { QueueView } from './queueView.js';
import { SearchBox } from './search.js';
import { installKeys } from './keys.js';
import { installNarrowList } from './narrow.js';
import { ApprovalCards } from './approvalCards.js';
import { PermissionPicker } from './permissionPicker.js';
import { Notices } from './notices.js';
import { OwnFolder } from './ownFolder.js';
import { FilesPanel } from './filesPanel.js';
import { Preview } from './preview.js';
import { CodeColours } from './code.js';

fillTexts();
const md = createMarkdown();
const rules = () => controller.rules;
const preview = new Preview(md, new CodeColours());
/** @param {string} thread @param {string} path */
const openFile = (thread, path) => void preview.show(thread, path);
const controller = new Controller({
  thread: new ThreadView(md, rules, openFile),
  files: new FilesPanel(openFile),
  ask: new AskView(),
  service: new ServiceView(),
  list: new ThreadList(byId('threads')),
  attachments: new Attachments({
    list: byId('attachments'), note: byId('attach-note'), button: byId('attach'), input: byId('attach-input'), question: byId('question'),
  }, rules),
  picker: new ModelPicker({ model: byId('model'), effort: byId('effort'), note: byId('model-note') }),
  approvals: new ApprovalCards(),
  permission: new PermissionPicker(byId('thread-more')),
  notices: new Notices((thread) => {
    location.hash = thread;
  }),
  ownFolder: new OwnFolder(),
  queue: new QueueView(byId('queued'), {
    change: (id, text) => controller.changeQueued(id, text),
    send: (id) => controller.sendQueued(id),
  }),
}, { getJson, postJson, connect: (address, onEvent, onConnection) => new EventSocket(address, onEvent, onConnection) });
new SearchBox({ input: byId('search'), results: byId('search-results'), threads: byId('threads') }, md, rules, (thread, turn) => controller.openHit(thread, turn));
installKeys();
installNarrowList();
controller.start();
