// Count lists, Markowitz lists, the pivot's place in the permutations and the
// physical chains of the row and column files.
//
// Data touched here (all 1-based, rows and columns by old number):
//
//   IIN%Nxtc, IIN%Prvc   links of the column lists.  Every active column is
//                        in exactly one of: the zero column list (head
//                        Ptr_Zero_Cols), a C-list IIN%Stcc(c) (Clen = c, count
//                        unknown, Mact = 0), an M-list IIN%Stmc(m) (Mact = m).
//   IIN%Nxtr, IIN%Prvr   links of the row lists: the zero row list (head
//                        Ptr_Zero_Rows), the C-lists IIN%Stcr(c) (Rlen = c),
//                        the scanned-row list (head Ptr_M_Rows, Mrow = 1).
//   Prv of a head        minus the key of its list: -c for a C-list, -m for an
//                        M-list, -1 for the scanned-row list, 0 for the zero
//                        lists.  Prv of any other member is its predecessor;
//                        Nxt of the last member is 0.
//   IIN%Stmc(1..MarkBad) M-list heads.  MarkBad (prime) is the top list:
//                        columns without an acceptable element; MarkBad - 1
//                        (IIN%MarkOver) the overflow list of all counts at or
//                        above it; MarkMax = MarkBad - 2 the highest count
//                        with a list of its own.
//   IIN%Mact, IIN%Mlow   best Markowitz count of a column (0 outside the
//                        M-lists) and its lower bound.
//   IIN%Clok             the column maximum IIN%Clmx is exact.
//   VIM%Rnto/Cnto/Rotn/Cotn  the permutations (Set_Pivot_Position).
//   IIN%Rpnx/Rppr, IIN%Cpnx/Cppr with RPfrst/RPlast, CPfrst/CPlast: the
//                        physical chains (file order) of active rows/columns.
//
// Every routine here is constant time except Increase_Stmc, which walks the
// two top lists once.
#include <cstdint>

#include "elimination/bump.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"

namespace vlu {

namespace {

// Internal error numbers of the list routines.
constexpr int Err_Illegal_M_Clen = 4101;
constexpr int Err_Remove_Col = 4102;
constexpr int Err_Remove_Row = 4103;
constexpr int Err_Col_C_Head = 4104;
constexpr int Err_Row_C_Head = 4105;
constexpr int Err_Col_M_Head = 4106;
constexpr int Err_Mact_Below_Mlow = 4107;

// Lowest odd number at or above m (an even m gets its low bit set) that is a
// prime when it is 9 or more: trial division by 3, 5, 7, ... up to the square
// root, moving on by 2 after every hit.
int32_t Next_Prime(int32_t m) {
  m |= 1;
  if (m >= 9) {
    int64_t d = 3;
    while (d * d <= m) {
      if (m % d == 0) {
        m += 2;
        d = 3;
      } else {
        d += 2;
      }
    }
  }
  return m;
}

// Puts `member` at the head of the list whose head is `head`, key `key`.
inline void Link_Head(int32_t *nxt, int32_t *prv, int32_t &head, int32_t member, int32_t key) {
  const int32_t old = head;
  nxt[member] = old;
  prv[member] = -key;
  if (old != 0) prv[old] = member;
  head = member;
}

}  // namespace

void Store_col_in_c_list(Bump_State &s, int32_t icol, int32_t ncnt) {
  IIN *iin = s.iin;
  int32_t *nxtc = iin->Nxtc.V, *prvc = iin->Prvc.V;
  if (ncnt == 0) {
    if (iin->Mcex.V[icol] != 0 && s.vmi->Trace_Inv >= 1)
      Doc(s.vmi, "Store_Col_in_C_List with Ncnt=0 but Mcex=%d Icol=%d", iin->Mcex.V[icol], icol);
    Link_Head(nxtc, prvc, s.Ptr_Zero_Cols, icol, 0);
    return;
  }
  Link_Head(nxtc, prvc, iin->Stcc.V[ncnt], icol, ncnt);
  if (ncnt < s.MIN_CC_List) {
    s.MIN_CC_List = ncnt;
    if (s.In_Select_Pivot) s.Search_Restart = true;
  }
}

void Store_Row_in_C_List(Bump_State &s, int32_t irow, int32_t ncnt) {
  IIN *iin = s.iin;
  int32_t *nxtr = iin->Nxtr.V, *prvr = iin->Prvr.V;
  if (ncnt == 0) {
    if (!s.Semi_Dense && iin->Mrex.V[irow] != 0 && s.vmi->Trace_Inv >= 1)
      Doc(s.vmi, "Store_Row_in_C_List with Irow=%d Ncnt=%d and Mrex=%d", irow, ncnt,
          iin->Mrex.V[irow]);
    Link_Head(nxtr, prvr, s.Ptr_Zero_Rows, irow, 0);
    return;
  }
  Link_Head(nxtr, prvr, iin->Stcr.V[ncnt], irow, ncnt);
  if (ncnt < s.MIN_RC_List) {
    s.MIN_RC_List = ncnt;
    if (s.In_Select_Pivot) s.Search_Restart = true;
  }
}

void Store_col_in_M_list(Bump_State &s, int32_t icol, int32_t m) {
  if (m <= 0) return;
  IIN *iin = s.iin;
  s.Count_Mark_Col += 1;
  s.St.Revisions += 1;
  const int32_t markBad = iin->MarkBad;
  if (m == Mark_Infinite) {
    m = markBad;
  } else if (m == markBad) {
    // The top list keeps its count, which need not be a multiple.
  } else if (m >= markBad - 1) {
    m = markBad - 1;
  } else {
    const int32_t t = s.luf->Clen.V[icol] - 1;
    // (Clen - 1 of an M-list member is at least 1; anything else is a fault.)
    if (t <= 0 || m % t != 0) {
      Doc(s.vmi, "**** Illegal M-Clen pair in column%8d: Mbst=%10d Clen=%8d", icol, m, t + 1);
      Internal_Error(s.vmi, Err_Illegal_M_Clen, true);
      return;
    }
  }
  if (m < s.Min_M_InList) {
    if (s.In_Select_Pivot) {
      if (s.vmi->Trace_Inv >= 3)
        Doc(s.vmi, "Min M-count reduced in Select_Pivot from%10d to%10d", s.Min_M_InList, m);
      s.Search_Restart = true;
    }
    s.Min_M_InList = m;
  }
  iin->Mact.V[icol] = m;
  Link_Head(iin->Nxtc.V, iin->Prvc.V, iin->Stmc.V[m], icol, m);
}

void Store_Row_in_M_List(Bump_State &s, int32_t irow) {
  IIN *iin = s.iin;
  iin->Mrow.V[irow] = 1;
  Link_Head(iin->Nxtr.V, iin->Prvr.V, s.Ptr_M_Rows, irow, 1);
  s.COUNT_MARK_ROW += 1;
}

void Remove_col_from_list(Bump_State &s, int32_t icol) {
  IIN *iin = s.iin;
  int32_t *nxtc = iin->Nxtc.V, *prvc = iin->Prvc.V;
  int32_t *mact = iin->Mact.V;
  const int32_t nxt = nxtc[icol], prv = prvc[icol];
  nxtc[icol] = 0;
  prvc[icol] = 0;
  if (prv > 0) {
    nxtc[prv] = nxt;
  } else if (!s.Semi_Dense && mact[icol] > 0) {
    // Head of the M-list of its count.
    const int32_t m = mact[icol];
    if (prv != -m) {
      Doc(s.vmi, "Remove_col_from_list. Icol=%d Prv=%d Mact=%d", icol, prv, m);
      Internal_Error(s.vmi, Err_Remove_Col, true);
      return;
    }
    iin->Stmc.V[m] = nxt;
  } else if (prv < 0) {
    int32_t &head = iin->Stcc.V[-prv];
    if (head != icol) {
      Doc(s.vmi, "Remove_col_from_list. Icol=%d Prv=%d but Stcc(%d)=%d", icol, prv, -prv, head);
      Internal_Error(s.vmi, Err_Remove_Col, true);
      return;
    }
    head = nxt;
  } else if (s.Ptr_Zero_Cols == icol) {
    s.Ptr_Zero_Cols = nxt;
  }
  // (Prv = 0 of a column that does not head the zero list: the column stands
  // in no list, and no head is touched.)
  if (!s.Semi_Dense && mact[icol] > 0) {
    s.Count_Mark_Col -= 1;
    mact[icol] = 0;
  }
  if (nxt != 0) prvc[nxt] = prv;
}

void Remove_Row_from_List(Bump_State &s, int32_t irow) {
  IIN *iin = s.iin;
  int32_t *nxtr = iin->Nxtr.V, *prvr = iin->Prvr.V;
  int32_t *mrow = iin->Mrow.V;
  const int32_t nxt = nxtr[irow], prv = prvr[irow];
  const bool scanned = mrow[irow] > 0;
  nxtr[irow] = 0;
  prvr[irow] = 0;
  if (prv > 0) {
    nxtr[prv] = nxt;
  } else if (scanned) {
    if (prv != -1) {
      Doc(s.vmi, "Remove_Row_From_List: Irow=%d Mrow=%d and Prev=%d", irow, mrow[irow], prv);
      Internal_Error(s.vmi, Err_Remove_Row, true);
      return;
    }
    s.Ptr_M_Rows = nxt;
  } else if (prv < 0) {
    int32_t &head = iin->Stcr.V[-prv];
    if (head != irow) {
      Doc(s.vmi, "Remove_Row_From_List: Irow=%d Prev=%d but Stcr(%d)=%d", irow, prv, -prv, head);
      Internal_Error(s.vmi, Err_Remove_Row, true);
      return;
    }
    head = nxt;
  } else if (s.Ptr_Zero_Rows == irow) {
    s.Ptr_Zero_Rows = nxt;
  }
  if (scanned) s.COUNT_MARK_ROW -= 1;
  mrow[irow] = 0;
  if (nxt != 0) prvr[nxt] = prv;
}

void Remove_col_from_C_head(Bump_State &s, int32_t icol, int32_t cnt) {
  IIN *iin = s.iin;
  int32_t *nxtc = iin->Nxtc.V, *prvc = iin->Prvc.V;
  const char *fault = nullptr;
  int32_t value = 0;
  if (cnt == 0) {
    fault = "). Count = 0 is wrong";
  } else if (iin->Stcc.V[cnt] != icol) {
    fault = "). Stcc=";
    value = iin->Stcc.V[cnt];
  } else if (prvc[icol] != -cnt) {
    fault = "). Prvc=";
    value = prvc[icol];
  }
  if (fault != nullptr) {
    if (cnt == 0)
      Doc(s.vmi, "Remove_Col_from_C_Head(%d,%d%s", icol, cnt, fault);
    else
      Doc(s.vmi, "Remove_Col_from_C_Head(%d,%d%s%d", icol, cnt, fault, value);
    Internal_Error(s.vmi, Err_Col_C_Head, true);
    return;
  }
  const int32_t nxt = nxtc[icol];
  iin->Stcc.V[cnt] = nxt;
  if (nxt != 0) prvc[nxt] = -cnt;
  nxtc[icol] = 0;
  prvc[icol] = 0;
}

void Remove_Row_from_C_Head(Bump_State &s, int32_t irow, int32_t cnt) {
  IIN *iin = s.iin;
  int32_t *nxtr = iin->Nxtr.V, *prvr = iin->Prvr.V;
  const char *fault = nullptr;
  int32_t value = 0;
  if (cnt == 0) {
    fault = "). Count = 0 is wrong";
  } else if (iin->Stcr.V[cnt] != irow) {
    fault = "). Stcr=";
    value = iin->Stcr.V[cnt];
  } else if (prvr[irow] != -cnt) {
    fault = "). Prvr=";
    value = prvr[irow];
  }
  if (fault != nullptr) {
    if (cnt == 0)
      Doc(s.vmi, "Remove_Row_from_C_Head(%d,%d%s", irow, cnt, fault);
    else
      Doc(s.vmi, "Remove_Row_from_C_Head(%d,%d%s%d", irow, cnt, fault, value);
    Internal_Error(s.vmi, Err_Row_C_Head, true);
    return;
  }
  const int32_t nxt = nxtr[irow];
  iin->Stcr.V[cnt] = nxt;
  if (nxt != 0) prvr[nxt] = -cnt;
  nxtr[irow] = 0;
  prvr[irow] = 0;
}

void Remove_col_from_M_head(Bump_State &s, int32_t icol, int32_t m) {
  IIN *iin = s.iin;
  int32_t *nxtc = iin->Nxtc.V, *prvc = iin->Prvc.V;
  int32_t *mact = iin->Mact.V;
  if (mact[icol] != m || m <= 0 || iin->Stmc.V[m] != icol) {
    Doc(s.vmi, "Error in Remove_Col_From_M_Head. Icol=%d M=%d Stmc=%d but, Mact=%d", icol, m,
        m > 0 ? iin->Stmc.V[m] : 0, mact[icol]);
    Internal_Error(s.vmi, Err_Col_M_Head, true);
    return;
  }
  const int32_t nxt = nxtc[icol];
  iin->Stmc.V[m] = nxt;
  if (nxt != 0) prvc[nxt] = -m;
  nxtc[icol] = 0;
  prvc[icol] = 0;
  s.Count_Mark_Col -= 1;
  mact[icol] = 0;
}

void CLEAR_Clok(Bump_State &s, int32_t icol, int32_t clength) {
  IIN *iin = s.iin;
  iin->Clok.V[icol] = LFalse;
  if (s.Semi_Dense) return;
  const int32_t mact = iin->Mact.V[icol];
  if (mact == 0) return;  // in a C-list: nothing is known to go stale
  const int32_t mlow = iin->Mlow.V[icol];
  const int32_t over = iin->MarkBad - 1;
  if (mact < over) {
    if (mact == mlow) return;
    if (mact < mlow) {
      Doc(s.vmi, "Mact is less than Mlow. STOP. Icol=%d Mact=%d Mlow=%d", icol, mact, mlow);
      Internal_Error(s.vmi, Err_Mact_Below_Mlow, true);
      return;
    }
  } else if (mlow >= over) {
    return;  // a top list, and the bound says no better
  }
  // The exact count is unknown from now on: the column's only sound place is
  // its lower bound.
  Remove_col_from_list(s, icol);
  if (Stopped(s)) return;
  if (mlow == 0 || clength < 2) {
    Store_col_in_c_list(s, icol, clength);
  } else {
    int32_t *clen = s.luf->Clen.V;
    const int32_t keep = clen[icol];
    clen[icol] = clength;  // the multiple test of the store speaks of the new length
    Store_col_in_M_list(s, icol, mlow);
    clen[icol] = keep;
  }
}

void Increase_Stmc(Bump_State &s) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  const int32_t oldBad = iin->MarkBad;
  const int64_t half = (3 * static_cast<int64_t>(oldBad)) / 2;
  int64_t want = half > s.MarkHigh ? half : s.MarkHigh;
  if (want > 2147483645) want = 2147483645;
  const int32_t newBad = Next_Prime(static_cast<int32_t>(want));
  const int32_t size = Size(iin->Stmc);
  if (newBad > size) {
    const int32_t delta = newBad - size;
    if (vmi->Trace_Inv >= 2)
      Doc(vmi, "Increasing Stmc by%10d Original length=%10d and new length=%10d", delta, size,
          newBad);
    Increase_Int(vmi, iin->Stmc, "IIN%Stmc", delta);
    if (!vmi->EnoughSpace || Size(iin->Stmc) < newBad) {
      Doc(vmi, "Failure attempting to increase Stmc by%10d elements.", delta);
      vmi->EnoughSpace = false;
      return;
    }
  }
  int32_t *stmc = iin->Stmc.V;
  int32_t *nxtc = iin->Nxtc.V, *prvc = iin->Prvc.V;
  int32_t *mact = iin->Mact.V, *mlow = iin->Mlow.V, *clen = s.luf->Clen.V;
  const int32_t top = stmc[oldBad];
  const int32_t over = stmc[oldBad - 1];
  stmc[oldBad] = 0;
  stmc[oldBad - 1] = 0;
  for (int32_t m = oldBad + 1; m <= newBad; ++m) stmc[m] = 0;
  iin->MarkBad = newBad;
  iin->MarkOver = newBad - 1;
  iin->MarkMax = newBad - 2;

  // The top list moves as a whole.
  if (top != 0) {
    stmc[newBad] = top;
    prvc[top] = -newBad;
    for (int32_t j = top; j != 0; j = nxtc[j]) mact[j] = newBad;
  }
  // The overflow list is dealt out again: its counts may have lists now.
  for (int32_t j = over, next = 0; j != 0; j = next) {
    next = nxtc[j];
    nxtc[j] = 0;
    prvc[j] = 0;
    s.Count_Mark_Col -= 1;
    mact[j] = 0;
    if (clen[j] < 2 || mlow[j] <= 0)
      Store_col_in_c_list(s, j, clen[j]);
    else
      Store_col_in_M_list(s, j, mlow[j]);
    if (Stopped(s)) return;
  }
}

void Set_Pivot_Position(Bump_State &s) {
  VIM *vim = s.vim;
  const int32_t k = s.Piv_Indx;
  int32_t *rnto = vim->Rnto.V, *rotn = vim->Rotn.V;
  int32_t *cnto = vim->Cnto.V, *cotn = vim->Cotn.V;
  {
    const int32_t r = s.Piv_Row, from = rotn[r], other = rnto[k];
    rnto[k] = r;
    rnto[from] = other;
    rotn[r] = k;
    rotn[other] = from;
  }
  {
    const int32_t c = s.Piv_Col, from = cotn[c], other = cnto[k];
    cnto[k] = c;
    cnto[from] = other;
    cotn[c] = k;
    cotn[other] = from;
  }
}

void Unlink_Row(Bump_State &s, int32_t irow) {
  IIN *iin = s.iin;
  int32_t *nx = iin->Rpnx.V, *pr = iin->Rppr.V;
  const int32_t p = pr[irow], n = nx[irow];
  if (p != 0) nx[p] = n; else iin->RPfrst = n;
  if (n != 0) pr[n] = p; else iin->RPlast = p;
  nx[irow] = 0;
  pr[irow] = 0;
}

void Unlink_Col(Bump_State &s, int32_t icol) {
  IIN *iin = s.iin;
  int32_t *nx = iin->Cpnx.V, *pr = iin->Cppr.V;
  const int32_t p = pr[icol], n = nx[icol];
  if (p != 0) nx[p] = n; else iin->CPfrst = n;
  if (n != 0) pr[n] = p; else iin->CPlast = p;
  nx[icol] = 0;
  pr[icol] = 0;
}

void Link_Row_Last(Bump_State &s, int32_t irow) {
  IIN *iin = s.iin;
  const int32_t last = iin->RPlast;
  iin->Rppr.V[irow] = last;
  iin->Rpnx.V[irow] = 0;
  if (last != 0) iin->Rpnx.V[last] = irow; else iin->RPfrst = irow;
  iin->RPlast = irow;
}

void Link_Col_Last(Bump_State &s, int32_t icol) {
  IIN *iin = s.iin;
  const int32_t last = iin->CPlast;
  iin->Cppr.V[icol] = last;
  iin->Cpnx.V[icol] = 0;
  if (last != 0) iin->Cpnx.V[last] = icol; else iin->CPfrst = icol;
  iin->CPlast = icol;
}

}  // namespace vlu
