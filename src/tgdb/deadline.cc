#include "tgdb/deadline.h"

#include "libmy/my_time.h"

void deadline_check(search_context& ctx) {
  if (!ctx.has_deadline) return;
  timespec now = my_time_now();
  bool before = ctx.deadline.tv_sec > now.tv_sec ||
                (ctx.deadline.tv_sec == now.tv_sec && ctx.deadline.tv_nsec >= now.tv_nsec);
  if (before) return;
  if (ctx.timeout_callback && ctx.timeout_callback(ctx.deadline, now.tv_sec)) return;
  throw search_timeout{};
}
