// @ts-check
// Every word the page writes itself, in one place: index.html's too (its elements name theirs by
// data-text and its kin, filled in at start), all but the document's title, which a tab shows
// before any script runs. Sentences the service writes (its refusals, its limits, Codex's errors)
// come from the service and are shown as they are; limits shown here are the service's numbers.

/** @typedef {import('../workspace/model.ts').Usage} Usage */
/** @typedef {import('../workspace/model.ts').Context} Context */

const number = new Intl.NumberFormat('zh-CN');
const clock = new Intl.DateTimeFormat('zh-CN', { month: 'numeric', day: 'numeric', hour: '2-digit', minute: '2-digit' });
const MIB = 1024 * 1024;

/** @param {number} bytes */
function fileSize(bytes) {
  if (bytes < 1024) return `${bytes} B`;
  const [value, unit] = bytes < MIB ? [bytes / 1024, 'KB'] : bytes < 1024 * MIB ? [bytes / MIB, 'MB'] : [bytes / 1024 / MIB, 'GB'];
  return `${value < 10 ? value.toFixed(1) : Math.round(value)} ${unit}`;
}

/** @param {Usage} usage */
const tokens = (usage) => `输入 ${number.format(usage.input)} · 输出 ${number.format(usage.output)} 个 token`;

export const texts = {
  // The page's own elements.
  newThread: '＋ 新的研究',
  search: '搜索所有线程',
  searchPlaceholder: '搜索所有线程……',
  searchResults: '搜索结果',
  threads: '研究线程',
  account: 'Codex 账户',
  keys: '快捷键',
  about: '关于本机服务',
  welcomeTitle: '向 Codex 提出一个研究问题',
  welcome: '回答来自你自己的 Codex 命令行工具，并用你自己的 ChatGPT 账户登录。每个研究线程都有自己的文件夹，Codex 只能在其中写入；所有问题和回答都保存在这台电脑上。',
  question: '问题',
  questionPlaceholder: '提出一个研究问题……',
  attachments: '要附带的文件',
  attach: '添加文件',
  model: '模型',
  effort: '推理强度',
  stop: '停止',
  send: '发送',
  steer: '引导',
  queue: '排队',
  steerHint: '“引导”交给这一轮，“排队”留到它完成后。',
  more: '更多',

  // Requests.
  unreachable: '无法连接工作区服务。',
  /** @param {number} status */
  refused: (status) => `工作区服务拒绝了这个请求（${status}）。`,
  disconnected: '与工作区服务的连接断开了，正在重新连接……如果 Lanternmoor Pro 已退出，请重新打开它。',
  threadDeleted: '这个研究线程已被删除。',

  // The thread and its turns.
  /** @param {string} folder */
  folder: (folder) => `文件夹：${folder}`,
  /** @param {Usage} usage */
  threadUsage: (usage) => `全部用量：${tokens(usage)}`,
  /** @param {Usage} usage */
  turnUsage: (usage) => `本轮用量：${tokens(usage)}`,
  answering: 'Codex 正在回答……',
  // Asking again, branching, guidance, the queue, the context.
  editLast: '编辑并重问',
  editLastHint: '修改这个问题并重新提问：这一轮的回答会被替换。要修改更早的问题，请在那一轮“从这里分支”。',
  retry: '重试',
  branch: '从这里分支',
  branchHint: '新建一个线程，包含到这一轮为止的对话，和当前文件夹的一份副本；原线程不变。',
  branching: '正在分支……',
  editing: '正在编辑上一个问题，发送后会替换那一轮的回答。要修改更早的问题，请从那一轮分支。',
  cancelEdit: '取消编辑',
  guidance: '引导',
  queuedTitle: '排队的问题（本轮完成后发送）',
  queuedEdit: '编辑',
  queuedSave: '保存',
  queuedCancel: '取消',
  queuedSendNow: '现在发送',
  /** @param {Context} context */
  context: (context) => (context.window
    ? `上下文：已用 ${Math.min(100, Math.round((context.used / context.window) * 100))}%（${number.format(context.used)} / ${number.format(context.window)} 个 token）`
    : `上下文：${number.format(context.used)} 个 token`),
  contextFull: '上下文快满了：Codex 会压缩较早的对话，细节可能丢失。可以从较早的轮次分支，或开一个新线程。',
  stopped: '已停止，之前的内容已保留。',
  interrupted: '回答被中断了。',
  failed: '这个问题没有得到回答。',
  attached: '附件',
  reasoning: '思考',
  plan: '计划',
  command: '命令',
  webSearch: '网页搜索',
  sources: '来源',
  tool: '调用工具',
  itemStatus: { running: '运行中……', completed: '已完成', failed: '失败', stopped: '已停止' },
  /** @param {number} code */
  exitCode: (code) => `退出码 ${code}`,
  /** @param {number} ms */
  duration: (ms) => (ms < 1000 ? `${ms} 毫秒` : `${(ms / 1000).toFixed(1)} 秒`),
  /** @param {number} count */
  dropped: (count) => `另有 ${count} 个字符的输出未保留`,
  /** @param {number} count @param {string} status */
  fileChanges: (count, status) => `修改文件 ${count} 个 · ${status}`,
  change: { add: '新建', delete: '删除', update: '修改' },
  /** @param {string} what @param {string} path */
  changedFile: (what, path) => `${what}：${path}`,
  copy: '复制',
  copyCode: '复制代码',
  copied: '已复制',
  copyFailed: '复制失败',

  // The thread's head.
  renameHint: '点击改名',
  titleLabel: '线程标题',
  pin: '置顶',
  unpin: '取消置顶',
  archive: '归档',
  unarchive: '取消归档',
  export: '导出',
  delete: '删除',
  deleteForGood: '删除线程和文件夹',
  cancel: '取消',
  deleteQuestion: '删除这个线程、它的全部对话和它的文件夹？此操作无法撤销。',

  // Permissions and what Codex asks to be allowed.
  permission: '权限',
  permissionHint: 'Codex 在这个线程里不经询问就能做的事，从下一个问题起生效；超出时它会先问你',
  permissions: { read: '只读', write: '可写本文件夹', network: '可写本文件夹并联网' },
  approvalTitle: 'Codex 请求你的允许',
  approvalCommand: '要运行的命令',
  approvalFileChange: '要写入的文件',
  approvalWhere: '位置',
  approvalWhy: '原因',
  allowOnce: '允许一次',
  allowThread: '本线程都允许',
  decline: '拒绝',

  // Being told when something is done.
  notify: '通知',
  notifyOn: '开启桌面通知：回答结束或 Codex 等你确认时，即使本页不在前台也会告诉你',
  notifyBlockedShort: '通知已阻止',
  notifyBlocked: '浏览器已阻止本页的通知：可在浏览器的网站设置中打开。',
  notifyEnded: '这一轮回答结束了。',
  /** @param {string} what */
  notifyWaiting: (what) => `Codex 在等你允许：${what}`,
  /** @param {string} title @param {number} running @param {number} waiting */
  tabTitle: (title, running, waiting) =>
    `${running > 0 ? `(${running}) ` : ''}${waiting > 0 ? `[${waiting} 待确认] ` : ''}${title}`,

  // A folder of the user's own.
  ownFolder: '在我的文件夹中研究',
  ownFolderTitle: '选择一个你自己的文件夹',
  ownFolderPath: '文件夹的完整路径',
  ownFolderHelp: 'Codex 会在这个文件夹里工作，开始时只能读取；要让它写入，请在线程顶部改权限。删除线程不会删除或改动这个文件夹。',
  browse: '打开',
  up: '上一级',
  chooseFolder: '在这个文件夹中研究',
  /** @param {string} path */
  inOwnFolder: (path) => `下一个新问题将在你的文件夹“${path}”中研究（只读）。`,
  ownFolderOff: '改用新文件夹',
  /** @param {number} shown */
  moreFolders: (shown) => `只列出前 ${shown} 个文件夹。`,
  noFolders: '这里没有子文件夹。',
  ownFolderNote: '你的文件夹',

  // The thread's files and their previews.
  files: '文件',
  filesPanel: '本线程的文件',
  filesTop: '文件夹',
  filesEmpty: '文件夹里还没有文件。',
  upFolder: '上一级文件夹',
  close: '关闭',
  revealFolder: '在文件管理器中打开',
  download: '下载',
  downloadAll: '下载全部文件',
  uploadedByYou: '你上传的',
  /** @param {number} position */
  madeInTurn: (position) => `第 ${position + 1} 问`,
  /** @param {number} position */
  changedAfterTurn: (position) => `第 ${position + 1} 问后另有改动`,
  fileLink: '链接（不打开）',
  /** @param {number} bytes */
  size: fileSize,
  openPdf: '在新标签页中用浏览器打开这个 PDF',
  noPreview: '这种文件不能在页面中预览，可以下载后查看。',
  notJsonFile: '这个文件不是有效的 JSON，按文本显示。',
  /** @param {number} read @param {number} size */
  previewCut: (read, size) => `文件共 ${fileSize(size)}，这里只显示开头的 ${fileSize(read)}。`,
  /** @param {number} shown @param {number} total */
  tableRows: (shown, total) => (shown === total ? `共 ${number.format(total)} 行。` : `显示前 ${number.format(shown)} 行，共 ${number.format(total)} 行。`),
  /** @param {number} shown @param {number} size */
  tableStart: (shown, size) => `显示前 ${number.format(shown)} 行（文件共 ${fileSize(size)}，只读取了开头）。`,
  /** @param {string} problem */
  tableProblem: (problem) => `表格有格式问题：${problem}`,
  /** @param {number} count */
  jsonArray: (count) => `[ ${number.format(count)} 项 ]`,
  /** @param {number} count */
  jsonObject: (count) => `{ ${number.format(count)} 个字段 }`,

  // The thread list.
  waitingNow: '● 等你确认 · ',
  pinned: '已置顶',
  recent: '最近',
  archived: '已归档',
  noThreads: '还没有研究线程。',
  noArchived: '没有归档的研究线程。',
  showArchived: '已归档的线程',
  backToThreads: '← 返回研究线程',
  answeringNow: '● 回答中 · ',
  /** @param {number} at */
  when: (at) => clock.format(at),

  // Search.
  /** @param {string} text */
  nothingFound: (text) => `没有找到“${text}”。`,
  /** @param {number} share of the threads indexed so far */
  indexBuilding: (share) => `搜索索引还在建立（${Math.floor(share * 100)}%），暂时只能找到已建好的部分。`,

  // Files and the model.
  /** @param {number} bytes */
  fileLimit: (bytes) => `每个文件最多 ${number.format(Math.round(bytes / MIB))} MB`,
  /** @param {string} limit */
  ask: (limit) => `Enter 发送 · Shift+Enter 换行 · ${limit}`,
  /** @param {string} limit */
  attachHint: (limit) => `添加文件（${limit}），也可以把文件拖到页面上或粘贴进来`,
  /** @param {string} name */
  remove: (name) => `移除 ${name}`,
  /** @param {string} name @param {string} sentence */
  fileRefused: (name, sentence) => `“${name}”：${sentence}`,
  /** @param {string} from @param {string} to */
  renamedFile: (from, to) => `已有同名文件，“${from}”改名为“${to}”。`,
  effortNames: /** @type {Record<string, string>} */ ({
    none: '不推理', minimal: '最少', low: '低', medium: '中', high: '高', xhigh: '很高', max: '最高', ultra: '极致',
  }),
  noEffort: '—',
  codexSettings: 'Codex 的设置',
  /** @param {string} name */
  defaultModel: (name) => `默认（${name}）`,
  /** @param {string} name */
  effortChoice: (name) => `推理：${name}`,
  /** @param {string} name */
  defaultEffort: (name) => `推理：默认（${name}）`,
  /** @param {string} model */
  modelGone: (model) => `之前选的模型“${model}”现在不再提供，已改用默认模型。`,

  // The service and the account.
  aboutRows: {
    address: '工作区地址', dataFolder: '数据文件夹', codex: 'Codex 工具', account: 'Codex 账户', node: 'Node.js', startedAt: '启动时间',
  },
  /** @param {string} path @param {string} version */
  codexVersion: (path, version) => `${path}（版本 ${version}）`,
  noCodexPath: '（未提供）',
  signedOut: '未登录',
  noAccount: '—',
  /** @param {number} at */
  startedAt: (at) => new Date(at).toLocaleString('zh-CN'),
  notSignedIn: 'Codex 还没有登录，登录后才能提问。',
  signInWithChatGpt: '使用 ChatGPT 登录',
  signInWithCode: '改用设备码登录',
  signInStarting: '正在启动登录……',
  signInInTab: '请在新打开的标签页中登录 ChatGPT，完成后这里会自动更新。没有看到标签页？',
  signInAgain: '再次打开登录页',
  signInOpen: '请在浏览器中打开 ',
  signInCode: '，登录后输入这个一次性代码：',
  cancelSignIn: '取消登录',
  signOut: '退出登录',
  signOutQuestion: '退出 Codex 的登录？退出后需要重新登录才能提问。',
  /** @param {number | null} minutes */
  usageWindow: (minutes) => {
    if (minutes === null) return '用量';
    if (minutes === 10_080) return '每周用量';
    if (minutes % 1440 === 0) return `${minutes / 1440} 天用量`;
    if (minutes % 60 === 0) return `${minutes / 60} 小时用量`;
    return `${minutes} 分钟用量`;
  },
  /** @param {string} window @param {number} used @param {number | null} resetsAt */
  usageLimit: (window, used, resetsAt) => `${window}：已用 ${used}%${resetsAt ? `，${clock.format(resetsAt)} 重置` : ''}`,

  // The keyboard.
  shortcuts: {
    newThread: '新的研究', search: '搜索', stop: '停止回答', previous: '上一个研究线程', next: '下一个研究线程',
  },
  /** @param {string} what @param {string} keys */
  withShortcut: (what, keys) => `${what}（${keys}）`,
};
