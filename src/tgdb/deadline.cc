#include "tgdb/deadline.h"

#include "libmy/my_time.h"

void search_deadline::check() {
  if (!armed) return;
  const timespec now = my_time_now();
  const bool before = at.tv_sec > now.tv_sec || (at.tv_sec == now.tv_sec && at.tv_nsec >= now.tv_nsec);
  if (before) return;
  if (timeout_callback && timeout_callback(at, now.tv_sec)) return;
  throw search_timeout{};
}
