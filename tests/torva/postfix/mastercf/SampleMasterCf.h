// A master.cf in the style that Postfix is installed with, and made harder: aligned
// columns, commented-out services, continuation lines with comments between them,
// both kinds of argument, no service of a type that we do not know.
#pragma once

namespace torva::mail::postfix::testing {

inline const char* const sampleMasterCf =
    R"cf(#
# The services of this mail server. Say "postfix reload" after a change.
#
# ==========================================================================
# service type  private unpriv  chroot  wakeup  maxproc command + args
#               (yes)   (yes)   (no)    (never) (100)
# ==========================================================================
smtp      inet  n       -       y       -       -       smtpd
#smtp      inet  n       -       y       -       1       postscreen
submission inet n       -       y       -       -       smtpd
  -o syslog_name=postfix/submission
  -o smtpd_tls_security_level=encrypt
#  -o smtpd_reject_unlisted_recipient=no
   # clients that have logged in
  -o smtpd_client_restrictions=permit_sasl_authenticated,reject

  -o milter_macro_daemon_name=ORIGINATING
#628       inet  n       -       y       -       -       qmqpd
pickup    unix  n       -       y       60      1       pickup
cleanup   unix  n       -       y       -       0       cleanup
qmgr      unix  n       -       n       300     1       qmgr
tlsmgr    unix  -       -       y       1000?   1       tlsmgr
127.0.0.1:10030 inet n  n       n       -       10      spawn
	user=filter argv=/usr/bin/filter -x ${sender} --reply='<a@b.example>'

smtp      unix  -       -       y       -       -       smtp
relay     unix  -       -       y       -       -       smtp
        -o syslog_name=postfix/$service_name
# a pipe
maildrop  unix  -       n       n       -       -       pipe
  flags=DRXhu user=vmail argv=/usr/bin/maildrop -d ${recipient}
scalemail-backend unix -       n       n       -       2       pipe
  flags=R user=scalemail argv=/usr/lib/scalemail/bin/scalemail-store ${nexthop} ${user} ${extension}
)cf";

} // namespace torva::mail::postfix::testing
