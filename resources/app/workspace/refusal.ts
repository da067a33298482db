// A request the workspace will not carry out, with the HTTP status and the sentence the page shows.
export class Refusal extends Error {
  readonly status: number;
  constructor(status: number, message: string) {
    super(message);
    this.status = status;
  }
}
