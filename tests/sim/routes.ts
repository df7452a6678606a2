// The routes a scenario scripts, in the order they are tried, each with how often it has
// answered; changed while the instance runs through the control channel.

import type { Route } from "./scenario";

export class RouteTable {
  private entries: { route: Route; used: number }[] = [];

  constructor(routes: Route[] = []) {
    this.replace(routes);
  }

  /** Puts `routes` in place of all there were, none of them used yet. */
  replace(routes: Route[]): void {
    this.entries = routes.map((route) => ({ route, used: 0 }));
  }

  /** Adds a route, tried before all the others unless `last`. */
  add(route: Route, last: boolean): void {
    if (last) this.entries.push({ route, used: 0 });
    else this.entries.unshift({ route, used: 0 });
  }

  /**
   * The index of the first route that answers a request, or null: its method matches (or it
   * takes any), its path is the request's path (its whole target when the route's path has a
   * query), and it has answered fewer than `times` times.
   */
  pick(method: string, target: string, p: string): number | null {
    for (let i = 0; i < this.entries.length; i++) {
      const { route, used } = this.entries[i];
      if (route.method !== undefined && route.method !== "*" && route.method !== method) continue;
      if (route.path !== (route.path.includes("?") ? target : p)) continue;
      if (route.times !== undefined && used >= route.times) continue;
      return i;
    }
    return null;
  }

  /** The route at `index`, counted as having answered once more. */
  use(index: number): Route {
    this.entries[index].used++;
    return this.entries[index].route;
  }

  /** Each route's path, method and use count, in order. */
  summary(): { path: string; method: string | undefined; used: number }[] {
    return this.entries.map((r) => ({ path: r.route.path, method: r.route.method, used: r.used }));
  }
}
