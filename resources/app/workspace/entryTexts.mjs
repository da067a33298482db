// The sentences the entry (server.mjs) answers with before any TypeScript is loaded: plain
// JavaScript, so the entry reads them without type stripping, and texts.ts takes them in, so each
// is written once for both.
/** The longest search, in characters: the entry answers a search too long for a request's head. */
export const SEARCH_MAX_LENGTH = 200;

export const entryTexts = {
  foreignHost: '只接受通过 127.0.0.1 或 localhost 访问工作区。',
  methodNotAllowed: '不支持这种请求方式。',
  notLoaded: '工作区没能加载，详情见数据文件夹中的运行日志。',
  searchTooLong: (limit = SEARCH_MAX_LENGTH) => `搜索内容太长了：请不要超过 ${limit} 个字符。`,
};
